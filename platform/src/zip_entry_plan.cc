// Checking every entry of an archive before anything is extracted. Packages
// come from outside the device, so each name is taken as hostile: libzip hands
// names back exactly as stored.
#include <sys/stat.h>

#include <cerrno>

#include "zip_support.h"
#include "zip_unpack.h"

namespace zipper {
namespace detail {
namespace {

// Throws the refusal of entry `name` for `why`.
[[noreturn]] void refuse(std::string const& name, char const* why) {
    throw Failure{EINVAL, "refused entry " + quoted(name) + ": " + why};
}

// The relative path `name` stands for, with empty and "." components dropped.
// Throws for names that could reach outside the destination.
std::string relativePath(std::string const& name) {
    if (name.empty()) refuse(name, "empty name");
    if (name.find('\\') != std::string::npos) refuse(name, "backslash in name");
    if (name.front() == '/') refuse(name, "absolute name");
    std::string path;
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        std::string const component = name.substr(start, end - start);
        if (component == "..") refuse(name, "\"..\" component");
        if (!component.empty() && component != ".") path += (path.empty() ? "" : "/") + component;
        start = end + 1;
    }
    if (path.compare(0, sizeof kScratchPrefix - 1, kScratchPrefix) == 0) refuse(name, "reserved name");
    return path;
}

// The Unix mode in the entry's external attributes, 0 when it has none.
mode_t unixMode(zip_t* archive, zip_uint64_t index) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) != 0) {
        throw zipFailure("cannot read attributes", zip_get_error(archive));
    }
    return system == ZIP_OPSYS_UNIX ? static_cast<mode_t>(attributes >> 16) : 0;
}

PlannedEntry planEntry(zip_t* archive, zip_uint64_t index) {
    zip_stat_t st;
    if (zip_stat_index(archive, index, ZIP_FL_ENC_RAW, &st) != 0 || !(st.valid & ZIP_STAT_NAME)) {
        throw zipFailure("cannot read entry " + std::to_string(index), zip_get_error(archive));
    }
    PlannedEntry entry{};
    entry.index = index;
    entry.name = st.name;
    mode_t const mode = unixMode(archive, index);
    if ((mode & S_IFMT) == S_IFLNK) refuse(entry.name, "symbolic link");
    if (!(st.valid & ZIP_STAT_SIZE) || !(st.valid & ZIP_STAT_COMP_SIZE))
        refuse(entry.name, "no declared size");
    entry.path = relativePath(entry.name);
    entry.directory = entry.name.back() == '/' || (mode & S_IFMT) == S_IFDIR;
    if (entry.path.empty() && !entry.directory) refuse(entry.name, "empty name");
    entry.hasMode = mode != 0;
    entry.mode = mode & 07777;
    entry.size = st.size;
    entry.compressedSize = st.comp_size;
    entry.hasMtime = (st.valid & ZIP_STAT_MTIME) != 0;
    entry.mtime = st.mtime;
    return entry;
}

}  // namespace

std::vector<PlannedEntry> planEntries(zip_t* archive) {
    zip_int64_t const count = zip_get_num_entries(archive, 0);
    if (count < 0) throw zipFailure("cannot count entries", zip_get_error(archive));
    std::vector<PlannedEntry> entries;
    for (zip_uint64_t index = 0; index < static_cast<zip_uint64_t>(count); ++index) {
        PlannedEntry entry = planEntry(archive, index);
        if (!entry.path.empty()) entries.push_back(std::move(entry));  // "./" names the destination itself
    }
    return entries;
}

}  // namespace detail
}  // namespace zipper
