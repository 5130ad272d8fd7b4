// Running shell commands and waiting for conditions in tests.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace nxatest {

struct ShellResult {
    int status;          // exit status (128 + signal when killed), -1 when not run
    std::string output;  // standard output and standard error together
};

// Runs `command` with /bin/sh -c and collects its output (stderr merged).
ShellResult shell(std::string const& command);

// Calls `condition` every few milliseconds until it returns true (true) or
// `timeout` passes (false).
bool waitUntil(std::function<bool()> const& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// The number of descriptors this process has open, besides the platform's
// own (the accept reserve and the threads' interest sets).
int openDescriptorCount();

// Writes `content` to `path` (created or truncated) with `mode`.
void writeFile(std::string const& path, std::string const& content, int mode = 0644);

// The whole content of `path`; empty when it cannot be read.
std::string readFile(std::string const& path);

}  // namespace nxatest
