// Zip archives, on libzip.
#pragma once

#include <string>

namespace zipper {

// Sets the trace level of the zip helpers. A call of zipFolderAsFolder,
// zipFolderContents or unZipWithDirs that fails always writes one line on
// standard output, under LogUtil::logMutex, flushed, naming why (an archive
// over the unpack budget, an entry's compression ratio, a refused entry or
// destination, damaged data, a failed system call):
//     [WARNING] zipper::<function>() <from> -> <to>: failed: <reason>
// At level 1 and above a call that succeeds writes one too:
//     [DEBUG] zipper::<function>() <from> -> <to>: <n> entries
// where <from> and <to> are the two paths as given.
void setDebug(unsigned level);

// Writes a fresh `archive` (an old one is replaced) holding `folder` by its
// last path component, recursively, with directory entries ("name/"). Each
// entry carries its Unix mode in the external attributes (so executables stay
// executable after unZipWithDirs) and its modification time. Symbolic links
// are followed (the archive holds what they point to); FIFOs, sockets and
// devices are left out. The archive is written into a temporary file beside
// `archive` and renamed over it only on success, so a failure leaves the old
// archive as it was. Returns 0, or -1 with errno on failure: ENOENT when
// `folder` (or the directory of `archive`) does not exist, ENOTDIR when it is
// not a directory, ELOOP for a directory loop through symbolic links, the
// system's number for any other failed system call.
int zipFolderAsFolder(std::string const& folder, std::string const& archive);

// Like zipFolderAsFolder, but the archive holds what is inside `folder`, named
// relative to it (a module archive: "Manifest" and the program at the top).
// An empty folder gives -1 with ENOENT and no archive: libzip writes no file
// for an archive without entries.
int zipFolderContents(std::string const& folder, std::string const& archive);

// Extracts `archive` into `dest`, creating `dest` (with its parents) and the
// directories the entries need. `password` decrypts encrypted entries when not
// empty. Returns 0, or -1 with errno: ENOENT for a missing archive, EINVAL for
// a refused destination, for a file that is not a usable zip archive or that
// holds a refused entry, EFBIG for an archive over the unpack budget, EIO for
// damaged data (CRC or decompression error, an entry longer or shorter than
// declared), the system's number for a failed system call.
//
// `dest` must name a folder of its own inside the folder its path names: its
// last path component (the text after its last '/') must be neither empty,
// "." nor "..". So "", "/", "a/b/", "a/b//", "a/b/." and "a/b/.." are refused
// (a trailing slash leaves the last component empty), while repeated slashes
// inside the path do not matter ("a//b" is "b" in "a") and ".." before the
// last component is taken as the system takes it ("a/../b" is "b" in "a/..").
// A refused destination is checked first: nothing is read or written.
//
// Every entry is checked before anything is written: an archive with an entry
// whose name is empty, absolute, holds a ".." component or a backslash, starts
// with ".nxa-unzip-", or that is a symbolic link (Unix mode S_IFLNK in the
// external attributes; refused wherever it points, also inside `dest`) is
// refused as a whole and nothing at all is written, `dest` not even created.
// The sizes the central directory declares are checked at that point too, with
// the same effect: an entry of more than 1 MiB that declares more than 2000
// times its compressed size is refused (EINVAL; deflate packs at most about
// 1030:1, so only other methods and forged sizes get there), and so is an
// archive whose entries declare more than unpackBudget(dest) bytes in all
// (EFBIG). Then the data is extracted into a hidden scratch folder inside `dest`
// (".nxa-unzip-XXXXXX"), reading each entry in chunks up to its declared size
// and checking its CRC, and moved into place only when the whole archive was
// read correctly; an entry whose data goes on past its declared size fails
// with EIO, so what is written never exceeds the declared total the budget
// admitted. The scratch folder is removed in every case, and so are the
// directories made for `dest` when the call fails. Entries replace what `dest`
// holds under the same name (files, and symbolic links, which are never
// followed); directories are merged, an existing one keeping its mode. Files
// get the permission bits of their Unix mode (set-user-id, set-group-id and
// sticky bits dropped) and their time; directories get their mode plus the
// owner's rwx. An archive without entries succeeds and writes nothing.
int unZipWithDirs(std::string const& archive, std::string const& dest, std::string const& password);

// Sets the unpack budget of unZipWithDirs: the most bytes the entries of one
// archive may declare in all. 0 (the start value) restores the default of
// 256 MiB. Applies to every later call, in every thread.
void setUnpackBudget(unsigned long long bytes);

// The unpack budget in force for extracting into `dest`: the value set with
// setUnpackBudget, or 256 MiB, but never more than half of the space available
// to unprivileged users (statvfs: f_bavail * f_frsize) on the file system
// holding `dest`, or its nearest existing parent when `dest` does not exist
// yet. So one archive can never fill a file system, and each of several in a
// row leaves at least half of what the previous one left. When neither `dest`
// nor any parent can be examined, the value is not capped.
unsigned long long unpackBudget(std::string const& dest);

}  // namespace zipper
