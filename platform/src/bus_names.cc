#include "bus_names.h"

namespace VLPBus {

namespace {

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '~' || c == '-';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string encodeName(std::string const& name) {
    static char const digits[] = "0123456789ABCDEF";
    std::string wire;
    wire.reserve(name.size());
    for (char c : name) {
        auto byte = static_cast<unsigned char>(c);
        if (isUnreserved(byte)) {
            wire += c;
            continue;
        }
        wire += '%';
        wire += digits[byte >> 4];
        wire += digits[byte & 0xf];
    }
    return wire;
}

std::optional<std::string> decodeName(std::string const& wire) {
    std::string name;
    name.reserve(wire.size());
    for (std::size_t i = 0; i < wire.size(); ++i) {
        if (wire[i] != '%') {
            name += wire[i];
            continue;
        }
        if (wire.size() - i < 3) return std::nullopt;
        int high = hexValue(wire[i + 1]);
        int low = hexValue(wire[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        name += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return name;
}

}  // namespace VLPBus
