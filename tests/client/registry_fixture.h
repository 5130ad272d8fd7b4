// What the registry and supervision tests share.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>

#include "nxa_test_access.h"
#include "nxaclient.h"

namespace nxaclienttest {

constexpr char kModulesDir[] = "/var/opt/velmora/nxa";

// The line every module's construction writes at level 0.
constexpr char kConnected[] = "[INFO] NXAModule::Module() connection to VLPBus server established\n";

// The port the module's socket is bound to (0 when unbound).
unsigned short boundPort(NXAClient::Module const& module);

// Writes "/var/opt/velmora/nxa/<name>/Manifest" for `arch` and the program
// "/var/opt/velmora/nxa/<name>/<name>", a /bin/sh script made of `body`.
void installModule(std::string const& name, std::string const& arch,
                   std::string const& body = "exec sleep 1000");

// One turn of a host loop over the registry: addFds, wait (at most timeoutMs),
// handleInput, handleOutput.
void pollOnce(NXAClient::Modules const& modules, int timeoutMs = 20);
// Turns until `condition` holds (true) or `timeout` passes (false).
bool pollUntil(NXAClient::Modules const& modules, std::function<bool()> const& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Whether `pid` is still a process (zombies count as gone).
bool processAlive(pid_t pid);
// Whether `pid` is gone for good: no such process, not even one left to reap
// (its parent, this process, has reaped it).
bool gone(pid_t pid);

// A test at trace level 0 with the sandbox required; restores level 0 after.
class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace nxaclienttest
