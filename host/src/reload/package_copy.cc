#include <fcntl.h>
#include <nxahost/package_copy.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace nxahost {
namespace {

constexpr int kAttempts = 3;
constexpr char kChanged[] = "the package changed while it was read";

std::string failure(std::string const& what, int err) {
    return what + ": " + std::strerror(err);
}

bool sameVersion(struct stat const& a, struct stat const& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
           a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// A descriptor closed when the scope ends.
struct OpenFile {
    int fd;
    ~OpenFile() {
        if (fd >= 0) ::close(fd);
    }
};

// Writes all of `length` bytes; false with errno on failure.
bool writeAll(int fd, char const* data, std::size_t length) {
    while (length > 0) {
        ssize_t const n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

// Copies what `in` holds to `out`; the number of bytes, or -1 with errno.
// Stops after `limit` + 1 bytes: the file grew past what may be taken.
long long copyAll(int in, int out, unsigned long long limit) {
    char buffer[64 * 1024];
    unsigned long long total = 0;
    for (;;) {
        ssize_t const n = ::read(in, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) return static_cast<long long>(total);
        if (!writeAll(out, buffer, static_cast<std::size_t>(n))) return -2;
        total += static_cast<unsigned long long>(n);
        if (total > limit) return static_cast<long long>(total);
    }
}

std::string tooLarge(std::string const& source, unsigned long long size, unsigned long long limit) {
    return source + " holds " + std::to_string(size) + " bytes, more than the " + std::to_string(limit) +
           " a package may have";
}

// One attempt: the problem, kChanged, or empty when `part` holds the file.
std::string copyOnce(std::string const& source, std::string const& part, unsigned long long limit) {
    // Without waiting: a FIFO put in the package's place would block the open.
    OpenFile in{::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    if (in.fd < 0 && errno == ENOENT) return failure(source + " does not exist", ENOENT);
    if (in.fd < 0) return failure("cannot open " + source, errno);
    struct stat before {};
    if (::fstat(in.fd, &before) != 0) return failure("cannot examine " + source, errno);
    if (!S_ISREG(before.st_mode)) return source + " is not a file";
    unsigned long long const size = static_cast<unsigned long long>(before.st_size);
    if (size > limit) return tooLarge(source, size, limit);
    OpenFile out{::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    if (out.fd < 0) return failure("cannot write " + part, errno);
    long long const copied = copyAll(in.fd, out.fd, limit);
    if (copied == -1) return failure("cannot read " + source, errno);
    if (copied == -2) return failure("cannot write " + part, errno);
    struct stat after {};
    if (::fstat(in.fd, &after) != 0) return failure("cannot examine " + source, errno);
    if (!sameVersion(before, after) || static_cast<unsigned long long>(copied) != size) return kChanged;
    // On disk before it is renamed into place: a power cut leaves it whole or not there.
    if (::fsync(out.fd) != 0) return failure("cannot sync " + part, errno);
    return {};
}

}  // namespace

std::string copyPackage(std::string const& source, std::string const& copy, unsigned long long limit) {
    std::string const part = copy + ".part";
    std::string problem;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        problem = copyOnce(source, part, limit);
        if (problem != kChanged) break;
    }
    if (problem.empty() && ::rename(part.c_str(), copy.c_str()) != 0)
        problem = failure("cannot rename " + part, errno);
    if (!problem.empty()) ::unlink(part.c_str());
    return problem;
}

}  // namespace nxahost
