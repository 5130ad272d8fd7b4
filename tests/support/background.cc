#include "background.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "shell.h"

namespace nxatest {

std::string const& backgroundDir() {
    static std::string const dir = [] {
        std::string const path = "/tmp/nxa-background";
        ::mkdir(path.c_str(), 0755);
        return path;
    }();
    return dir;
}

Background::Background(std::string const& command, bool withInput) {
    // A name made unique by the file system: tests in sandboxes of their
    // own share this folder, and their process ids repeat from one process-id
    // namespace to the next.
    std::string pattern = backgroundDir() + "/" + std::to_string(::getpid()) + ".XXXXXX.out";
    int const out = ::mkostemps(pattern.data(), 4, O_APPEND | O_CLOEXEC);
    if (out < 0)
        ADD_FAILURE() << "cannot create a file in " << backgroundDir() << ": " << std::strerror(errno);
    file_ = pattern;
    int pipeEnds[2] = {-1, -1};
    if (withInput && ::pipe2(pipeEnds, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe: " << std::strerror(errno);
    int const in = withInput ? pipeEnds[0] : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::setpgid(0, 0);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (pid_ < 0) ADD_FAILURE() << "fork: " << std::strerror(errno);
    // Both sides set the group, so that it exists whichever runs first.
    if (pid_ > 0) ::setpgid(pid_, pid_);
    ::close(out);
    ::close(in);
    input_ = pipeEnds[1];
}

Background::~Background() {
    closeInput();
    if (pid_ > 0) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ::unlink(file_.c_str());
}

void Background::send(std::string const& bytes) const {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t const n = ::write(input_, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            ADD_FAILURE() << "cannot write to the command's input: " << std::strerror(errno);
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

void Background::closeInput() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
}

std::string Background::output() const {
    return readFile(file_);
}

bool Background::waitFor(std::string const& text, std::chrono::milliseconds timeout) const {
    return waitUntil([&] { return output().find(text) != std::string::npos; }, timeout);
}

int Background::wait(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return -1;
    int status = 0;
    bool const done = waitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
    if (!done) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Background::signal(int sig) const {
    if (pid_ > 0) ::kill(pid_, sig);
}

}  // namespace nxatest
