#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/ini_parser.h>

#include <cerrno>
#include <ios>
#include <system_error>

namespace {

// Throws the stream failure for `err`, leaving errno set to it for callers
// that report errno after catching.
[[noreturn]] void failRead(std::string const& path, int err) {
    std::ios_base::failure failure("cannot read " + path, std::error_code(err, std::system_category()));
    errno = err;
    throw failure;
}

// An open descriptor, closed when the reader is done with it.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Appends everything `fd` yields until end of file, at most `limit` bytes.
// Returns 0, or the error number of the failure.
int readAll(int fd, std::string& content, unsigned long limit) {
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n == 0) return 0;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno == EAGAIN ? 0 : errno;  // a FIFO without data reads as empty
        }
        if (content.size() + static_cast<unsigned long>(n) > limit) return EFBIG;
        content.append(buf, static_cast<std::size_t>(n));
    }
}

// The whole content of the file at `path`.
std::string readFile(std::string const& path) {
    // O_NONBLOCK keeps a FIFO from blocking the caller; regular files ignore it.
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) failRead(path, errno);
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) failRead(path, errno);
    if (S_ISREG(st.st_mode) && static_cast<unsigned long>(st.st_size) > IniParser::kMaxSize) {
        failRead(path, EFBIG);
    }
    std::string content;
    if (S_ISREG(st.st_mode)) content.reserve(static_cast<std::size_t>(st.st_size));
    if (int err = readAll(fd.get(), content, IniParser::kMaxSize)) failRead(path, err);
    return content;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// `text` without the blanks and tabs at either end.
std::string trim(std::string const& text, std::size_t first, std::size_t last) {
    while (first < last && isBlank(text[first])) ++first;
    while (last > first && isBlank(text[last - 1])) --last;
    return text.substr(first, last - first);
}

}  // namespace

IniParser::IniParser(std::string const& path, unsigned /*debug*/) {
    std::string const content = readFile(path);
    unsigned long number = 0;
    std::size_t start = 0;
    while (start < content.size()) {
        std::size_t end = content.find('\n', start);
        if (end == std::string::npos) end = content.size();
        parseLine(path, content.substr(start, end - start), ++number);
        start = end + 1;
    }
}

void IniParser::parseLine(std::string const& path, std::string const& line, unsigned long number) {
    std::size_t last = line.size();
    if (last > 0 && line[last - 1] == '\r') --last;
    std::size_t first = 0;
    while (first < last && isBlank(line[first])) ++first;
    if (first == last || line[first] == '#') return;
    std::size_t const equal = line.find('=', first);
    if (equal == std::string::npos || equal >= last) {
        throw VLException(path) << ":" << number << ": missing '='";
    }
    std::string key = trim(line, first, equal);
    if (key.empty()) throw VLException(path) << ":" << number << ": empty key";
    values_[std::move(key)] = trim(line, equal + 1, last);
}
