// Command line of the host daemon.
#pragma once

#include <nxahost/control_protocol.h>
#include <nxahost/device.h>
#include <nxahost/program_supervisor.h>

#include <string>
#include <vector>

struct HostOptions {
    std::string packageDir = nxahost::kPackageDir;
    std::string modulesDir = nxahost::kModulesDir;
    std::string workDir = nxahost::kWorkDir;
    unsigned short port = nxahost::kFirstModulePort;
    unsigned long maxModules = 16;
    unsigned debug = 0;
    std::string busName = nxahost::control::kDefaultHostName;
    nxahost::RestartPolicy restart = nxahost::RestartPolicy::onFailure;
    unsigned clientTimeout = 60;
    unsigned long long unpackBudgetMiB = 0;  // 0: the platform's default
    std::vector<std::string> modules;
    // The browser console listens on webAddress:webPort; an empty address
    // turns it off. Its pages, scripts and style sheets are read from webRoot
    // (parseCommandLine fills in nxahost::installedWebRoot() unless told
    // otherwise).
    // The folder of trusted minisign public keys; `trustedKeysGiven` when the
    // command line named it (then it must hold a usable key).
    std::string trustedKeys = "/etc/nxahost/trusted-keys.d";
    bool trustedKeysGiven = false;
    // How long a new package is on probation, and how many failures of one
    // module's program within it roll it back.
    unsigned probationSeconds = 60;
    unsigned probationFailures = 3;
    // Whether the host follows the package the fleet's centre wants for this
    // device (on the local broker, through its bridge), and the certificates
    // trusted for the downloads (empty: the system's store).
    bool fleet = false;
    std::string caFile;
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
