#include <nxahost/control_protocol.h>

namespace nxahost::control {
namespace {

using json = nlohmann::json;

bool validId(json const& request) {
    auto const it = request.find(key::kId);
    return it == request.end() || it->is_string() || it->is_number();
}

}  // namespace

bool nestingWithin(std::string const& text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char const c : text) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > limit) return false;
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

json parseRequest(std::string const& text) {
    if (!nestingWithin(text, kMaxRequestNesting)) return nullptr;
    json request = json::parse(text, nullptr, false);
    if (!request.is_object()) return nullptr;
    auto const command = request.find(key::kCommand);
    if (command == request.end() || !command->is_string() || !validId(request)) return nullptr;
    return request;
}

std::string messageText(json const& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace nxahost::control
