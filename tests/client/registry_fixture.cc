#include "registry_fixture.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <fstream>

#include "package_builder.h"
#include "sandbox.h"
#include "shell.h"

namespace nxaclienttest {

unsigned short boundPort(NXAClient::Module const& module) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getsockname(NXATestAccess::serverfd(module), reinterpret_cast<sockaddr*>(&addr), &len) != 0) return 0;
    return ntohs(addr.sin_port);
}

void installModule(std::string const& name, std::string const& arch, std::string const& body) {
    std::string const dir = std::string(kModulesDir) + "/" + name;
    nxatest::shell("mkdir -p '" + dir + "'");
    nxatest::writeFile(dir + "/Manifest", manifestText(name, arch));
    nxatest::writeFile(dir + "/" + name, "#!/bin/sh\n" + body + "\n", 0755);
}

void pollOnce(NXAClient::Modules const& modules, int timeoutMs) {
    FdSet rd, wr;
    modules.addFds(rd, wr);
    if (waitFds(rd, wr, timeoutMs) < 0) return;
    modules.handleInput(rd);
    modules.handleOutput(wr);
}

bool pollUntil(NXAClient::Modules const& modules, std::function<bool()> const& condition,
               std::chrono::milliseconds timeout) {
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        pollOnce(modules);
    }
    return true;
}

bool processAlive(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string skip, state;
    if (!(stat >> skip)) return false;
    // The command field may hold blanks; the state follows its closing parenthesis.
    std::string rest((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::string::size_type close = rest.rfind(')');
    if (close == std::string::npos || close + 2 >= rest.size()) return false;
    return rest[close + 2] != 'Z';
}

bool gone(pid_t pid) {
    errno = 0;
    bool const noProcess = ::kill(pid, 0) == -1 && errno == ESRCH;
    errno = 0;
    bool const nothingToReap = ::waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD;
    return noProcess && nothingToReap;
}

void RegistryTest::SetUp() {
    NXA_REQUIRE_SANDBOX();
    NXAClient::debug = 0;
    mkdir(kModulesDir, 0755);
}

void RegistryTest::TearDown() {
    NXAClient::debug = 0;
}

}  // namespace nxaclienttest
