// NXAClient::Module: starting the module's program as a child on the raw
// terminal, and stopping it with the module's descriptors.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>
#include <vlplatform/descriptors.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>

#include "module_trace.h"
#include "nxaclient.h"

namespace {

using nxa::module::kRun;
using nxa::trace::kModule;

// Every module's program is "<base><name>/<name>", whatever directory its
// manifest was checked in.
constexpr char kProgramBase[] = "/var/opt/velmora/nxa/";
constexpr mode_t kProgramMode = 0744;

void closeIfOpen(int fd) {
    if (fd != -1) closeDescriptor(fd);
}

}  // namespace

void NXAClient::Module::run() {
    noteChanged();
    NXA_DEBUG(kModule, "pid=", ::getpid(), " name=", name);
    try {
        childpid = proc.fork();
        if (childpid == -1) throw IOException(errno, "cannot fork");
        if (childpid == 0) startChild();
        makeTerminalRaw();
        NXA_DEBUG(kModule, "pid=", ::getpid(), " done");
    } catch (IOException const&) {
        closeTerminal();
        throw;
    }
}

// The parent keeps the slave open; only the child's copy is handed to the program.
void NXAClient::Module::makeTerminalRaw() {
    termios settings;
    if (::tcgetattr(master, &settings) == -1) throw IOException(errno, "tcgetattr");
    ::cfmakeraw(&settings);
    if (::tcsetattr(master, TCSANOW, &settings) == -1) throw IOException(errno, "tcsetattr");
}

// In the child: a session of its own with the slave as controlling terminal
// and as standard input, output and error. Everything else stays open across
// execv (the master, the listening socket, the bus connection).
void NXAClient::Module::startChild() {
    if (::setsid() == -1) throw IOException(errno, "cannot set session leader");
    if (::ioctl(slave, TIOCSCTTY, 0) == -1)
        NXA_DEBUG_AS(kModule, kRun, "cannot set new controlling tty: ", std::strerror(errno), ", ignored");
    for (int stdfd = 0; stdfd <= 2; ++stdfd) {
        if (::dup2(slave, stdfd) == -1)
            throw IOException(errno, "cannot replace stdin/stdout/stderr of NXA child");
    }
    if (slave > 2) ::close(slave);
    exec();
}

void NXAClient::Module::exec() {
    std::string path = kProgramBase + name + "/" + name;
    char* argv[] = {::strdup(path.c_str()), nullptr};
    if (argv[0] == nullptr) throw std::bad_alloc();
    ::chmod(path.c_str(), kProgramMode);
    // Written by the child, so both ids are the child's own; it is the first
    // line the module's peers receive.
    NXA_INFO(kModule, "pid=", ::getpid(), ": starting module \"", name, "\", childpid=", ::getpid());
    ::execv(path.c_str(), argv);
    int err = errno;
    std::cerr << "cannot exec \"" << path << "\": " << std::strerror(err) << std::endl;
    std::exit(1);
}

void NXAClient::Module::stop() {
    noteChanged();
    NXA_DEBUG(kModule, "pid=", ::getpid());
    peers.close();
    closeDescriptors();
    if (childpid != -1) {
        proc.stop(childpid);
        childpid = -1;
    }
    if (bus != nullptr) bus->disconnectFromServer();
    NXA_DEBUG(kModule, "pid=", childpid, " done");
}

// The numbers are kept, not reset to -1, so a second stop() closes the same
// numbers again. Deliberate.
void NXAClient::Module::closeDescriptors() {
    closeIfOpen(serverfd);
    closeIfOpen(master);
    closeIfOpen(slave);
}

// Closes the terminal pair and forgets it.
void NXAClient::Module::closeTerminal() {
    closeIfOpen(master);
    closeIfOpen(slave);
    master = -1;
    slave = -1;
}

NXAClient::Module::~Module() {
    NXA_DEBUG(kModule, "pid=", childpid, " getpid=", ::getpid());
    stop();
    delete bus;
    bus = nullptr;
    NXA_DEBUG(kModule, "pid=", childpid, " getpid=", ::getpid(), " done");
}
