#include "web_request.h"

#include <arpa/inet.h>
#include <libwebsockets.h>

#include <cctype>

namespace nxahost {

namespace {

// Longer Host and Origin values are not ours.
constexpr int kHeaderRoom = 256;

// "host:port" or "[v6]:port" without the port.
std::string withoutPort(std::string const& host) {
    if (!host.empty() && host.front() == '[') {
        std::size_t const close = host.find(']');
        return close == std::string::npos ? std::string() : host.substr(1, close - 1);
    }
    std::size_t const colon = host.rfind(':');
    return colon == std::string::npos ? host : host.substr(0, colon);
}

bool isAddress(std::string const& name) {
    unsigned char bytes[sizeof(in6_addr)];
    return inet_pton(AF_INET, name.c_str(), bytes) == 1 || inet_pton(AF_INET6, name.c_str(), bytes) == 1;
}

}  // namespace

std::string requestHeader(lws* wsi, int token) {
    auto const index = static_cast<lws_token_indexes>(token);
    int const length = lws_hdr_total_length(wsi, index);
    if (length <= 0 || length >= kHeaderRoom) return {};
    char value[kHeaderRoom];
    if (lws_hdr_copy(wsi, value, sizeof value, index) < 0) return {};
    return value;
}

bool trustedHost(lws* wsi) {
    std::string const name = withoutPort(requestHeader(wsi, WSI_TOKEN_HOST));
    return name == "localhost" || isAddress(name);
}

bool sameOrigin(lws* wsi) {
    if (lws_hdr_total_length(wsi, WSI_TOKEN_ORIGIN) <= 0) return true;
    std::string const origin = requestHeader(wsi, WSI_TOKEN_ORIGIN);
    std::string const host = requestHeader(wsi, WSI_TOKEN_HOST);
    return !host.empty() && origin == "http://" + host;
}

std::optional<std::string> moduleInPath(std::string const& path, std::string const& suffix) {
    std::string const prefix = "/module/";
    if (path.size() <= prefix.size() + suffix.size() || path.compare(0, prefix.size(), prefix) != 0 ||
        path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0)
        return std::nullopt;
    std::string name = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
        return std::nullopt;
    return name;
}

bool safeLibraryPath(std::string const& path) {
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        std::string const part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") return false;
        for (char c : part) {
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.')
                return false;
        }
        start = end + 1;
    }
    return true;
}

}  // namespace nxahost
