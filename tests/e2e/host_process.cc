#include "host_process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "shell.h"

namespace e2e {

std::string hostBinary() {
    return NXA_E2E_HOST;
}
std::string packBinary() {
    return NXA_E2E_PACK;
}
std::string examplesDir() {
    return NXA_E2E_EXAMPLES;
}
std::string faultLibrary() {
    return NXA_E2E_FAULT_LIBRARY;
}

std::string faultPreload() {
    // A sanitized host refuses to start unless the sanitizer runtime comes
    // first among the preloaded libraries; the fault library follows it, so
    // its functions still come before the C library's.
    std::string const runtime = NXA_E2E_SANITIZER_RUNTIME;
    return runtime.empty() ? faultLibrary() : runtime + ":" + faultLibrary();
}

std::string leakSuppressionsEnv() {
    return std::string("LSAN_OPTIONS=print_suppressions=0:suppressions=") + NXA_E2E_LEAK_SUPPRESSIONS;
}

std::string scratchDir() {
    static std::string const dir = [] {
        std::string path = "/tmp/nxa-e2e";
        ::mkdir(path.c_str(), 0755);
        return path;
    }();
    return dir;
}

namespace {

// In the child, before exec: only async-signal-safe calls.
void applyLimit(DescriptorLimit limit) {
    rlimit current{};
    if (::getrlimit(RLIMIT_NOFILE, &current) != 0) return;
    if (limit.hard != 0) current.rlim_max = limit.hard;
    if (limit.soft != 0) current.rlim_cur = limit.soft;
    ::setrlimit(RLIMIT_NOFILE, &current);
}

}  // namespace

HostProcess::HostProcess(std::vector<std::string> const& args, std::vector<std::string> const& env,
                         DescriptorLimit limit, std::string const& program) {
    static int serial = 0;
    std::string const base = scratchDir() + "/host" + std::to_string(++serial);
    outFile_ = base + ".out";
    errFile_ = base + ".err";

    std::vector<std::string> argStrings{program};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
    envStrings.insert(envStrings.end(), env.begin(), env.end());
    std::vector<char*> argv, envp;
    for (auto& a : argStrings) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    for (auto& e : envStrings) envp.push_back(&e[0]);
    envp.push_back(nullptr);

    int const out = ::open(outFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    int const err = ::open(errFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    int const in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        applyLimit(limit);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(out);
    ::close(err);
    ::close(in);
}

HostProcess::~HostProcess() {
    if (pid_ > 0 && status_ < 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

std::string HostProcess::out() const {
    return nxatest::readFile(outFile_);
}
std::string HostProcess::err() const {
    return nxatest::readFile(errFile_);
}

std::vector<std::string> HostProcess::outLines() const {
    std::vector<std::string> lines;
    std::string const text = out();
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}

int HostProcess::countLine(std::string const& line) const {
    int count = 0;
    for (std::string const& l : outLines()) count += l == line;
    return count;
}

bool HostProcess::waitForLine(std::string const& line, int times, milliseconds timeout) const {
    return nxatest::waitUntil([&] { return countLine(line) >= times; }, timeout);
}

void HostProcess::signal(int sig) const {
    if (pid_ > 0 && status_ < 0) ::kill(pid_, sig);
}

bool HostProcess::endedNow() const {
    if (pid_ <= 0 || status_ >= 0) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

int HostProcess::waitExit(milliseconds timeout) {
    if (!nxatest::waitUntil([&] { return endedNow(); }, timeout)) return -1;
    return status_;
}

std::string describe(HostProcess const& host) {
    return "host stdout:\n" + host.out() + "\nhost stderr:\n" + host.err();
}

bool waitRunning(HostProcess const& host, std::vector<std::pair<std::string, unsigned>> const& modules) {
    for (auto const& [name, port] : modules) {
        if (!host.waitForLine(runsOnPortLine(name, port))) return false;
    }
    return true;
}

std::string runsOnPortLine(std::string const& name, unsigned port) {
    std::string const p = std::to_string(port);
    return "[INFO] nxahost: module " + name + " runs on port " + p + " (attach: nc 127.0.0.1 " + p + ")";
}

}  // namespace e2e
