// What the module tests share: a look at a Module's private state, the host's
// polling turn over one module, module programs in the fixed directory, the
// forked child's fate, and command-line bus clients running beside the test.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <string>

#include "background.h"
#include "nxa_test_access.h"
#include "nxaclient.h"

namespace nxamodtest {

using Access = NXATestAccess;
using std::chrono::milliseconds;

// The module's program: "/var/opt/velmora/nxa/<name>/<name>".
std::string programPath(std::string const& name);
// Writes the program (and its directories) with `mode`.
void writeProgram(std::string const& name, std::string const& content, int mode = 0755);
// A /bin/sh program made of `body`.
void writeScript(std::string const& name, std::string const& body, int mode = 0755);
// Writes dir/<name>/Manifest (directories made as needed).
void writeManifest(std::string const& dir, std::string const& name, std::string const& content);

// One turn of the host's loop over one module: addFds, waitFds (at most
// timeoutMs), handleInput, handleOutput. Returns waitFds' result; on -1 the
// module is not served.
int pollOnce(NXAClient::Module& module, int timeoutMs = 50);
// Turns until `condition` holds (true) or `timeout` passes (false).
bool pollUntil(NXAClient::Module& module, std::function<bool()> const& condition,
               milliseconds timeout = std::chrono::seconds(10));
// Turns until the run log, drained into `log` (appended), contains `text`.
bool pollForRunLog(NXAClient::Module& module, std::string& log, std::string const& text,
                   milliseconds timeout = std::chrono::seconds(10));

// Status with which a forked copy of the test process ends when run() leaves it
// by exception (the child failed before its program started).
constexpr int kChildCopyFailed = 86;
// Where that copy leaves the exception's text.
constexpr char kChildCopyReport[] = "/tmp/nxa-module-child-copy";
// Calls module.run(). In the forked copy of this process, an exception out of
// run() is written to kChildCopyReport and the copy ends at once with
// _exit(kChildCopyFailed): it never returns into the test. In the test process
// run() returns or throws as usual.
void runModule(NXAClient::Module& module);
// The same for module.restart().
void restartModule(NXAClient::Module& module);
// The same for module.startProgram().
void startProgram(NXAClient::Module& module);

// How a child ended, observed without reaping it (the module's Proc reaps).
struct ChildEnd {
    bool ended = false;
    int code = 0;    // CLD_EXITED, CLD_KILLED, ...
    int status = 0;  // exit status or signal
};
ChildEnd waitChildEnd(pid_t pid, milliseconds timeout = std::chrono::seconds(10));
// The number of live processes running this test binary (this one included).
int testProcessCount();

// A shell command in the background (tests/support/background.h).
using nxatest::Background;

// Publishes a system message with mosquitto_pub (MQTT v5) to the bus
// participant `to`, as `sender`, with kind code `kind` and `text` as payload.
void publishSystem(std::string const& to, std::string const& sender, int kind, std::string const& text);

// mosquitto_sub on the topic of bus participant `name`, printing for each
// message "<user properties> <payload>" on one line. Returns once the
// subscription is known to be in place.
class BusSubscriber {
public:
    explicit BusSubscriber(std::string const& name);
    std::string output() const { return sub_.output(); }
    // Waits until the output contains `text`.
    bool waitFor(std::string const& text, milliseconds timeout = std::chrono::seconds(10)) const;

private:
    Background sub_;
};

}  // namespace nxamodtest
