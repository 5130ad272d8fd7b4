// Command line of nxactl.
#pragma once

#include <nxahost/control_client.h>

#include <chrono>
#include <string>
#include <vector>

struct CtlOptions {
    std::string command;            // "status", "clients", "kick", "restart", "follow", "reload" or "package"
    std::vector<std::string> args;  // the command's arguments, as many as it takes
    bool json = false;
    bool allowDowngrade = false;  // reload: let a module's version go back this once
    std::string busName = nxahost::control::kDefaultHostName;
    std::chrono::milliseconds timeout{3000};
    std::string timeoutText = "3";  // the time-out as the user wrote it, for messages
};

// The outcome of reading the command line: run the command, or end at once
// with `exitStatus` after printing `message` (to standard output for --help,
// to standard error otherwise: 2 for bad usage).
struct CtlCommandLine {
    bool run = false;
    int exitStatus = 0;
    std::string message;
    CtlOptions options;
};

CtlCommandLine parseCtlCommandLine(int argc, char* const argv[]);

// How the run asks the host: as "nxactl-<pid>", with the options' host and time-out.
nxahost::ControlClient::Setup controlSetup(CtlOptions const& options);
