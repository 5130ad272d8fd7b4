// Command line of the host daemon.
#pragma once

#include <string>
#include <vector>

#include "nxa_constants.h"
#include "program_supervisor.h"

struct HostOptions {
    std::string packageDir = nxatools::kPackageDir;
    std::string modulesDir = nxatools::kModulesDir;
    std::string workDir = nxatools::kWorkDir;
    unsigned short port = nxatools::kFirstModulePort;
    unsigned long maxModules = 16;
    unsigned debug = 0;
    std::string busName = "NXAHost";
    RestartPolicy restart = RestartPolicy::onFailure;
    unsigned clientTimeout = 60;
    unsigned long long unpackBudgetMiB = 0;  // 0: the platform's default
    std::vector<std::string> modules;
    // The browser console listens on webAddress:webPort; an empty address
    // turns it off. Its pages, scripts and style sheets are read from webRoot
    // (parseCommandLine fills in installedWebRoot() unless told otherwise).
    std::string webAddress = "127.0.0.1";
    unsigned short webPort = 20080;
    std::string webRoot;
};

// The outcome of reading the command line: run with the options, or end at once
// with `exitStatus` after printing `message` (to standard output for --help,
// to standard error otherwise).
struct ParsedCommandLine {
    bool run = false;
    int exitStatus = 0;
    std::string message;
    HostOptions options;
};

ParsedCommandLine parseCommandLine(int argc, char* const argv[]);

// The browser console's files of the installation this program belongs to:
// <prefix>/share/nxa/web for the program <prefix>/bin/nxahost.
std::string installedWebRoot();
