#include "hex.h"

namespace nxatest {

std::string toHex(std::string const& bytes) {
    static char const digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes) {
        hex += digits[c >> 4];
        hex += digits[c & 15];
    }
    return hex;
}

std::string fromHex(std::string const& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

}  // namespace nxatest
