#include <nxahost/control_protocol.h>
#include <nxahost/desired_package.h>
#include <nxahost/versions.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace nxahost {

namespace {

constexpr std::size_t kLongestDeploymentName = 64;
// A desired package is a few hundred bytes of flat JSON.
constexpr std::size_t kLongestText = 64 * 1024;

bool isHttpUrl(std::string const& url) {
    return url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
}

bool isSha256(std::string const& text) {
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

bool isDeploymentName(std::string const& name) {
    return !name.empty() && name.size() <= kLongestDeploymentName &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '_' || c == '-';
           });
}

// The string member `key`, or why there is none.
bool stringMember(nlohmann::json const& object, char const* key, std::string& value, std::string& why) {
    auto const found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        why = std::string("\"") + key + "\" is missing or not a string";
        return false;
    }
    value = found->get<std::string>();
    return true;
}

std::string check(DesiredPackage const& wanted, std::uint64_t mostBytes) {
    if (!isDeploymentName(wanted.deployment))
        return "\"deployment\" is not 1 to 64 letters, digits, \".\", \"_\" or \"-\"";
    if (!isDottedVersion(wanted.version)) return "\"version\" " + wanted.version + " is not dotted numbers";
    if (!isHttpUrl(wanted.packageUrl)) return "\"package_url\" is not an http:// or https:// URL";
    if (!isHttpUrl(wanted.signatureUrl)) return "\"signature_url\" is not an http:// or https:// URL";
    if (!isSha256(wanted.sha256)) return "\"sha256\" is not 64 lowercase hexadecimal digits";
    if (wanted.size == 0) return "\"size\" is 0";
    if (wanted.size > mostBytes)
        return "\"size\" " + std::to_string(wanted.size) + " is over the budget of " +
               std::to_string(mostBytes) + " bytes";
    return {};
}

}  // namespace

std::optional<DesiredPackage> DesiredPackage::parse(std::string const& text, std::uint64_t mostBytes,
                                                    std::string& why) {
    if (text.size() > kLongestText || !control::nestingWithin(text, control::kMaxRequestNesting)) {
        why = "longer than " + std::to_string(kLongestText) + " bytes or nested too deeply";
        return std::nullopt;
    }
    nlohmann::json const object = nlohmann::json::parse(text, nullptr, false);
    if (!object.is_object()) {
        why = "not a JSON object";
        return std::nullopt;
    }
    DesiredPackage wanted;
    if (!stringMember(object, "deployment", wanted.deployment, why) ||
        !stringMember(object, "version", wanted.version, why) ||
        !stringMember(object, "package_url", wanted.packageUrl, why) ||
        !stringMember(object, "signature_url", wanted.signatureUrl, why) ||
        !stringMember(object, "sha256", wanted.sha256, why))
        return std::nullopt;
    auto const size = object.find("size");
    if (size == object.end() || !size->is_number_unsigned()) {
        why = "\"size\" is missing or not a whole number";
        return std::nullopt;
    }
    wanted.size = size->get<std::uint64_t>();
    why = check(wanted, mostBytes);
    if (!why.empty()) return std::nullopt;
    return wanted;
}

std::string DesiredPackage::toJson() const {
    return nlohmann::json{{"deployment", deployment},      {"version", version}, {"package_url", packageUrl},
                          {"signature_url", signatureUrl}, {"sha256", sha256},   {"size", size}}
        .dump();
}

}  // namespace nxahost
