// The real nxahost binary run by a test: started in the background with its
// standard output and error going to files, watched line by line, signalled
// and waited for.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace e2e {

using std::chrono::milliseconds;

// How long a test waits for something the host is expected to do.
constexpr milliseconds kPatience{20000};

// The binaries and folders under test, as the build passes them.
std::string hostBinary();
std::string packBinary();
std::string examplesDir();
// The fault library (see fault_preload.c) and the LD_PRELOAD value that loads
// it into the host (after the sanitizer runtime in a sanitized build).
std::string faultLibrary();
std::string faultPreload();
// The LeakSanitizer suppressions for allocations the host leaves by design
// (see host_leak.supp), as a "LSAN_OPTIONS=..." environment entry.
std::string leakSuppressionsEnv();

// Whether the host and the tests are built with AddressSanitizer. A
// sanitized host keeps what it frees in its allocator's caches and shadow
// memory, so its resident memory says nothing of what the host's code keeps.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitizedBuild = true;
#else
inline constexpr bool kSanitizedBuild = false;
#endif

// An environment entry for a host whose memory a test measures: a sanitized
// host otherwise keeps what it frees in a quarantine of 256 MiB, so its
// resident memory would never go down. Turns the quarantine off (ignored by a
// host built without sanitizers).
constexpr char kNoAllocatorQuarantine[] = "ASAN_OPTIONS=quarantine_size_mb=0";

// A scratch folder of the running test, under /tmp (created on first use).
std::string scratchDir();

// Limits on open descriptors the host starts with; 0 leaves a limit as the test has it.
struct DescriptorLimit {
    unsigned long soft = 0;
    unsigned long hard = 0;
};

// One run of the host, a child of the test, its standard output and error in
// files of scratchDir(). It owns the process: the destructor ends it.
class HostProcess {
public:
    // Starts `program` (the host, or another program built on the library)
    // with `args`, the test's environment plus `env` ("NAME=value" entries),
    // standard input from /dev/null, and `limit`.
    explicit HostProcess(std::vector<std::string> const& args, std::vector<std::string> const& env = {},
                         DescriptorLimit limit = {}, std::string const& program = hostBinary());
    // Kills the host if it still runs (SIGKILL) and reaps it.
    ~HostProcess();
    HostProcess(HostProcess const&) = delete;
    HostProcess& operator=(HostProcess const&) = delete;

    pid_t pid() const { return pid_; }
    // Everything written to standard output / standard error so far.
    std::string out() const;
    std::string err() const;
    // The complete lines (ended by "\n") written to standard output so far.
    std::vector<std::string> outLines() const;
    // How many complete lines of standard output equal `line`.
    int countLine(std::string const& line) const;
    // Waits until standard output holds `line` as a complete line at least
    // `times` times.
    bool waitForLine(std::string const& line, int times = 1, milliseconds timeout = kPatience) const;

    // Sends `sig` to the host, unless it has ended.
    void signal(int sig) const;
    // Waits for the host to end: its exit status (128 + signal when killed),
    // or -1 when it still runs after `timeout`.
    int waitExit(milliseconds timeout = kPatience);
    // True while the host has not ended (reaps it when it has).
    bool running() const { return pid_ > 0 && status_ < 0 && !endedNow(); }

private:
    bool endedNow() const;

    pid_t pid_ = -1;
    mutable int status_ = -1;
    std::string outFile_;
    std::string errFile_;
};

// Both outputs of the host, for failure messages.
std::string describe(HostProcess const& host);

// Waits until the host reports each module of `modules` (name and port) as
// running.
bool waitRunning(HostProcess const& host, std::vector<std::pair<std::string, unsigned>> const& modules);

// The host's line for a module it runs:
// "[INFO] nxahost: module <name> runs on port <port> (attach: nc 127.0.0.1 <port>)".
std::string runsOnPortLine(std::string const& name, unsigned port);

}  // namespace e2e
