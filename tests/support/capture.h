// Capturing what the code under test writes to standard output or error.
#pragma once

#include <string>

namespace nxatest {

// While alive, descriptor `fd` (1 or 2) writes into a private file instead of
// its normal target; text() returns everything written so far (C++ streams and
// C stdio are flushed first). The destructor restores the descriptor; when the
// running test has failed by then, it also shows what was captured (the failure
// messages GoogleTest printed meanwhile among it).
class Capture {
public:
    explicit Capture(int fd = 1);
    ~Capture();
    Capture(Capture const&) = delete;
    Capture& operator=(Capture const&) = delete;

    // Everything written since construction.
    std::string text() const;
    // What has reached the descriptor so far, without flushing any stream first:
    // shows whether the code under test flushed its own output.
    std::string textUnflushed() const;
    // Ends the capture early (also done by the destructor) and returns the text.
    std::string release();

private:
    int fd_;
    int saved_ = -1;
    int file_ = -1;
};

// Both standard output and standard error at once.
struct CaptureBoth {
    Capture out{1};
    Capture err{2};
};

}  // namespace nxatest
