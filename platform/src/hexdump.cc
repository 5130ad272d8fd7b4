// The hex dump trace aid.
#include <cstddef>
#include <string>

#include "vlplatform/log_util.h"

namespace {

char const kHexDigits[] = "0123456789abcdef";

void appendHex(std::string& line, unsigned long value, int digits) {
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) {
        line += kHexDigits[(value >> shift) & 0xf];
    }
}

// One line of the dump: `count` bytes from `bytes`, which lie `offset` bytes
// after the start of the dump, in a line of `width` bytes.
std::string dumpLine(unsigned char const* bytes, std::size_t count, std::size_t offset, char const* label,
                     unsigned width, int prefixKind, bool ascii) {
    std::string line(label ? label : "");
    line += ": ";
    if (prefixKind == 1) {
        appendHex(line, offset, 8);
        line += ": ";
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) line += ' ';
        appendHex(line, bytes[i], 2);
    }
    if (ascii) {
        // A short last line is padded so that its characters line up with the lines above.
        line.append((width - count) * 3, ' ');
        line += "  ";
        for (std::size_t i = 0; i < count; ++i) {
            bool printable = bytes[i] >= 0x20 && bytes[i] < 0x7f;
            line += printable ? static_cast<char>(bytes[i]) : '.';
        }
    }
    line += '\n';
    return line;
}

}  // namespace

void hexdump(std::ostream& os, unsigned char const* first, unsigned char const* last, char const* label,
             unsigned width, int prefixKind, bool ascii) {
    if (width == 0) width = 16;
    if (!first || !last || last <= first) return;
    std::size_t total = static_cast<std::size_t>(last - first);
    for (std::size_t offset = 0; offset < total; offset += width) {
        std::size_t count = total - offset < width ? total - offset : width;
        os << dumpLine(first + offset, count, offset, label, width, prefixKind, ascii);
    }
}
