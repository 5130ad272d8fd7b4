// zipper::zipFolderAsFolder and zipFolderContents: a folder, recursively, into a fresh archive.
#include <sys/stat.h>
#include <vlplatform/zipper.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <set>
#include <utility>

#include "zip_support.h"

namespace zipper {
namespace {

using detail::Failure;

// MS-DOS attribute bit of a directory, set beside the Unix mode for readers
// that look only at the low attribute byte.
constexpr zip_uint32_t kDosDirectory = 0x10;

// Writes the entries of one folder tree into an open archive.
class FolderWriter {
public:
    explicit FolderWriter(zip_t* archive) : archive_(archive) {}

    // Adds `path` (a directory) as `name` with everything below it.
    void addDirectory(std::string const& path, std::string const& name, struct stat const& st);
    // Adds everything below the directory `path`, named relative to it.
    void addContents(std::string const& path, struct stat const& st);

    unsigned long entries() const { return entries_; }

private:
    void addChild(std::string const& path, std::string const& name);
    void addFile(std::string const& path, std::string const& name, struct stat const& st);
    void setMode(zip_int64_t index, std::string const& name, zip_uint32_t attributes);
    Failure archiveFailure(std::string const& what) const;

    zip_t* archive_;
    unsigned long entries_ = 0;
    std::set<std::pair<dev_t, ino_t>> openDirectories_;  // the directories being walked, against loops
};

void FolderWriter::addDirectory(std::string const& path, std::string const& name, struct stat const& st) {
    if (!openDirectories_.insert({st.st_dev, st.st_ino}).second) {
        throw Failure{ELOOP, "directory loop at " + path};
    }
    zip_int64_t const index = zip_dir_add(archive_, name.c_str(), 0);
    if (index < 0) throw archiveFailure("cannot add " + detail::quoted(name));
    ++entries_;
    setMode(index, name, ((S_IFDIR | (st.st_mode & 07777)) << 16) | kDosDirectory);
    zip_file_set_mtime(archive_, static_cast<zip_uint64_t>(index), st.st_mtime, 0);
    for (std::string const& child : detail::listDirectory(path))
        addChild(path + "/" + child, name + "/" + child);
    openDirectories_.erase({st.st_dev, st.st_ino});
}

void FolderWriter::addContents(std::string const& path, struct stat const& st) {
    openDirectories_.insert({st.st_dev, st.st_ino});
    for (std::string const& child : detail::listDirectory(path)) addChild(path + "/" + child, child);
    openDirectories_.erase({st.st_dev, st.st_ino});
}

// Symbolic links are followed, so the archive holds what they point to.
// Anything that is neither a file nor a directory (FIFO, socket, device) is
// left out: it has no content an archive could carry.
void FolderWriter::addChild(std::string const& path, std::string const& name) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw detail::systemFailure("cannot stat " + path);
    if (S_ISDIR(st.st_mode)) {
        addDirectory(path, name, st);
    } else if (S_ISREG(st.st_mode)) {
        addFile(path, name, st);
    }
}

// The file's data is read only when the archive is written (zip_close).
void FolderWriter::addFile(std::string const& path, std::string const& name, struct stat const& st) {
    detail::Source source(zip_source_file(archive_, path.c_str(), 0, -1));
    if (!source) throw archiveFailure("cannot read " + path);
    zip_int64_t const index = zip_file_add(archive_, name.c_str(), source.get(), 0);
    if (index < 0) throw archiveFailure("cannot add " + detail::quoted(name));
    source.release();  // the archive owns it now
    ++entries_;
    setMode(index, name, (S_IFREG | (st.st_mode & 07777)) << 16);
}

void FolderWriter::setMode(zip_int64_t index, std::string const& name, zip_uint32_t attributes) {
    if (zip_file_set_external_attributes(archive_, static_cast<zip_uint64_t>(index), 0, ZIP_OPSYS_UNIX,
                                         attributes) != 0) {
        throw archiveFailure("cannot set the mode of " + detail::quoted(name));
    }
}

Failure FolderWriter::archiveFailure(std::string const& what) const {
    return detail::zipFailure(what, zip_get_error(archive_));
}

// The name under which `folder` appears in the archive: its last path
// component, with "." and ".." resolved to the directory's real name.
std::string topName(std::string folder) {
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    std::string name = folder.substr(folder.rfind('/') + 1);
    if (name == "." || name == "..") {
        char resolved[PATH_MAX];
        if (!realpath(folder.c_str(), resolved)) throw detail::systemFailure("cannot resolve " + folder);
        std::string const real = resolved;
        name = real.substr(real.rfind('/') + 1);
    }
    if (name.empty()) throw Failure{EINVAL, "the root directory has no name to store"};
    return name;
}

// Writes a fresh `archive` from the directory `folder`: the folder itself by
// its last path component when `asFolder`, otherwise only what is inside it.
unsigned long zipFolder(std::string const& folder, std::string const& archive, bool asFolder) {
    struct stat st;
    if (stat(folder.c_str(), &st) != 0) throw detail::systemFailure("cannot stat " + folder);
    if (!S_ISDIR(st.st_mode)) throw Failure{ENOTDIR, folder + " is not a directory"};
    std::string const name = asFolder ? topName(folder) : std::string();
    int error = 0;
    errno = 0;
    detail::Archive za(zip_open(archive.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
    if (!za) {
        int const saved = errno;
        throw detail::openFailure("cannot create " + archive, error, saved);
    }
    FolderWriter writer(za.get());
    if (asFolder) {
        writer.addDirectory(folder, name, st);
    } else {
        writer.addContents(folder, st);
        if (writer.entries() == 0) throw Failure{ENOENT, folder + " is empty"};
    }
    // libzip writes the archive into a temporary file beside `archive` and
    // renames it over the old one only when everything was written; on any
    // failure the old archive stays as it was.
    if (zip_close(za.get()) != 0)
        throw detail::zipFailure("cannot write " + archive, zip_get_error(za.get()));
    za.release();
    return writer.entries();
}

}  // namespace

int zipFolderAsFolder(std::string const& folder, std::string const& archive) {
    return detail::runTraced("zipFolderAsFolder", folder + " -> " + archive,
                             [&] { return zipFolder(folder, archive, true); });
}

int zipFolderContents(std::string const& folder, std::string const& archive) {
    return detail::runTraced("zipFolderContents", folder + " -> " + archive,
                             [&] { return zipFolder(folder, archive, false); });
}

}  // namespace zipper
