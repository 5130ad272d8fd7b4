// Hands a fuzzer's input to code that reads it from a file.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace fuzzinput {

// Replaces whatever is at `path` by a new file holding the `size` bytes at
// `data`; aborts when that fails. A new file each time: rewriting a truncated
// file makes some file systems flush it on close, which would slow every run
// down to the disk's pace.
inline void writeInput(std::string const& path, std::uint8_t const* data, std::size_t size) {
    unlink(path.c_str());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n <= 0) std::abort();
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    close(fd);
}

}  // namespace fuzzinput
