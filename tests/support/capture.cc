#include "capture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace nxatest {

namespace {

void flushAll() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
}

}  // namespace

Capture::Capture(int fd) : fd_(fd) {
    flushAll();
    char name[] = "/tmp/nxatest-capture.XXXXXX";
    file_ = mkstemp(name);
    if (file_ < 0) throw std::runtime_error("cannot create capture file");
    unlink(name);
    saved_ = dup(fd_);
    dup2(file_, fd_);
}

Capture::~Capture() {
    release();
    ::close(file_);
}

std::string Capture::text() const {
    flushAll();
    return textUnflushed();
}

std::string Capture::textUnflushed() const {
    std::string out;
    char buf[4096];
    off_t pos = 0;
    ssize_t n;
    while ((n = pread(file_, buf, sizeof buf, pos)) > 0) {
        out.append(buf, static_cast<std::size_t>(n));
        pos += n;
    }
    return out;
}

std::string Capture::release() {
    if (saved_ < 0) return text();
    std::string out = text();
    dup2(saved_, fd_);
    ::close(saved_);
    saved_ = -1;
    // Failure messages written while capturing would be lost: show them.
    if (::testing::Test::HasFailure()) {
        std::string shown =
            "---- captured on fd " + std::to_string(fd_) + ":\n" + out + "---- end of capture\n";
        ssize_t ignored = ::write(fd_, shown.data(), shown.size());
        (void)ignored;
    }
    return out;
}

}  // namespace nxatest
