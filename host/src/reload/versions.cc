#include <nxahost/versions.h>

#include <sstream>

namespace nxahost {
namespace {

std::vector<unsigned long> partsOf(std::string const& version) {
    std::vector<unsigned long> parts;
    std::istringstream in(version);
    for (std::string part; std::getline(in, part, '.');) parts.push_back(std::stoul(part));
    return parts;
}

}  // namespace

bool isDottedVersion(std::string const& version) {
    std::size_t digits = 0;
    for (char const c : version) {
        if (c == '.') {
            if (digits == 0) return false;
            digits = 0;
        } else if (c >= '0' && c <= '9') {
            if (++digits > 9) return false;
        } else {
            return false;
        }
    }
    return digits > 0;
}

int compareVersions(std::string const& a, std::string const& b) {
    std::vector<unsigned long> const x = partsOf(a), y = partsOf(b);
    for (std::size_t i = 0; i < x.size() || i < y.size(); ++i) {
        unsigned long const p = i < x.size() ? x[i] : 0, q = i < y.size() ? y[i] : 0;
        if (p != q) return p < q ? -1 : 1;
    }
    return 0;
}

std::string newestVersion(std::vector<std::string> const& versions) {
    std::string newest;
    for (std::string const& version : versions) {
        if (isDottedVersion(version) && (newest.empty() || compareVersions(version, newest) > 0))
            newest = version;
    }
    return newest;
}

}  // namespace nxahost
