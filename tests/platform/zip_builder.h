// Archives made by the zip tests themselves, with libzip, including the ones
// the zip command refuses to make (absolute names, "..", backslashes).
#pragma once

#include <sys/stat.h>
#include <zip.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "shell.h"

namespace filestest {

// One entry to write. A directory entry has `directory` set (libzip appends
// the '/'); `mode` is a whole Unix mode (type and permissions) stored in the
// external attributes, or 0 for none (MS-DOS attributes 0 then).
struct EntrySpec {
    std::string name;
    std::string data;
    unsigned mode = 0;
    bool directory = false;
    bool stored = false;  // no compression
};

// Writes `entries`, in order, as a fresh archive at `path`. Throws on failure.
inline void writeZip(std::string const& path, std::vector<EntrySpec> const& entries) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!archive) throw std::runtime_error("cannot create " + path);
    for (EntrySpec const& e : entries) {
        zip_int64_t index;
        if (e.directory) {
            index = zip_dir_add(archive, e.name.c_str(), 0);
        } else {
            zip_source_t* source = zip_source_buffer(archive, e.data.data(), e.data.size(), 0);
            index = source ? zip_file_add(archive, e.name.c_str(), source, 0) : -1;
            if (index < 0 && source) zip_source_free(source);
        }
        if (index < 0) {
            zip_discard(archive);
            throw std::runtime_error("cannot add " + e.name);
        }
        auto const at = static_cast<zip_uint64_t>(index);
        if (e.mode != 0) {
            zip_file_set_external_attributes(archive, at, 0, ZIP_OPSYS_UNIX, e.mode << 16);
        } else {
            zip_file_set_external_attributes(archive, at, 0, ZIP_OPSYS_DOS, 0);
        }
        if (e.stored) zip_set_file_compression(archive, at, ZIP_CM_STORE, 0);
    }
    if (zip_close(archive) != 0) {
        zip_discard(archive);
        throw std::runtime_error("cannot write " + path);
    }
}

// The offset of the data of the entry named `name` in the archive bytes
// `bytes` (after its local header, name and extra field), or npos.
inline std::size_t entryDataOffset(std::string const& bytes, std::string const& name) {
    std::string const signature("PK\x03\x04", 4);
    for (std::size_t at = bytes.find(signature); at != std::string::npos;
         at = bytes.find(signature, at + 1)) {
        if (at + 30 > bytes.size()) break;
        auto u16 = [&](std::size_t off) {
            return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at + off])) |
                   static_cast<std::size_t>(static_cast<unsigned char>(bytes[at + off + 1])) << 8;
        };
        std::size_t const nameLength = u16(26);
        std::size_t const extraLength = u16(28);
        if (bytes.compare(at + 30, nameLength, name) == 0 && nameLength == name.size()) {
            return at + 30 + nameLength + extraLength;
        }
    }
    return std::string::npos;
}

// Sets the uncompressed size that both the local and the central header of
// entry `name` declare to `size`. Returns whether both headers were found.
inline bool patchDeclaredSize(std::string& bytes, std::string const& name, std::uint32_t size) {
    auto put32 = [&](std::size_t at) {
        for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>((size >> (8 * i)) & 0xff);
    };
    auto u16 = [&](std::size_t at) {
        return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at])) |
               static_cast<std::size_t>(static_cast<unsigned char>(bytes[at + 1])) << 8;
    };
    int patched = 0;
    std::string const local("PK\x03\x04", 4);
    std::string const central("PK\x01\x02", 4);
    for (std::size_t at = bytes.find(local); at != std::string::npos; at = bytes.find(local, at + 1)) {
        if (at + 30 <= bytes.size() && u16(at + 26) == name.size() &&
            bytes.compare(at + 30, name.size(), name) == 0) {
            put32(at + 22);
            ++patched;
        }
    }
    for (std::size_t at = bytes.find(central); at != std::string::npos; at = bytes.find(central, at + 1)) {
        if (at + 46 <= bytes.size() && u16(at + 28) == name.size() &&
            bytes.compare(at + 46, name.size(), name) == 0) {
            put32(at + 24);
            ++patched;
        }
    }
    return patched == 2;
}

// Some bytes that compress a little but not to nothing.
inline std::string binaryContent(std::size_t size) {
    std::string data;
    std::uint32_t x = 12345;
    for (std::size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        data += static_cast<char>((x >> 16) % 7 == 0 ? (x >> 8) & 0xff : i % 251);
    }
    return data;
}

}  // namespace filestest
