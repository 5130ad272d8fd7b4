// A shell command running beside a test: a client, a subscriber, a broker.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace nxatest {

// The directory the background commands' output files are in (made on first
// use), for tests that look at what else appears in /tmp to leave aside.
std::string const& backgroundDir();

// A shell command (/bin/sh -c) in the background, in its own process group,
// its standard output and error going to one file. With `withInput`, its
// standard input is a pipe the test writes to (send, closeInput); otherwise
// /dev/null. The destructor kills the group and reaps the command, unless it
// was waited for, and removes the file.
class Background {
public:
    explicit Background(std::string const& command, bool withInput = false);
    ~Background();
    Background(Background const&) = delete;
    Background& operator=(Background const&) = delete;

    // Writes `bytes` to the command's standard input (made with withInput);
    // fails the test when it cannot.
    void send(std::string const& bytes) const;
    // Closes the command's standard input (end of file for it).
    void closeInput();
    // Everything the command has written so far.
    std::string output() const;
    // Waits until the output contains `text`.
    bool waitFor(std::string const& text, std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    // Waits for the command to end: its exit status (128 + the signal when one
    // ended it), -1 on time-out.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Sends `sig` to the command's process (the shell, or what it exec'd),
    // unless it has been waited for.
    void signal(int sig) const;
    // The command's process id (the shell's, or what it exec'd); -1 once waited for.
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    std::string file_;
};

}  // namespace nxatest
