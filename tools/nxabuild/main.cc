// nxabuild: builds a module's sources into the development package, zips a
// workspace's sources, or links a shared data file into the workspace, through
// the library's build operations.
#include <nxahost/device.h>

#include <exception>
#include <iostream>
#include <string>

#include "nxaclient.h"
#include "options.h"

namespace {

// The fixed configuration of the device; only the workspace and the trace
// level come from the command line.
using nxahost::kDataDir;
using nxahost::kFirstModulePort;
using nxahost::kModulesDir;
using nxahost::kPackageDir;

// Runs the command; returns the line that says what came of it.
std::string perform(NXAClient& client, BuildOptions const& o, std::string& log) {
    switch (o.command) {
        case BuildOptions::Command::Build:
            client.build(o.argument, log, o.force);
            return std::string("development package: ") + NXAClient::NXA_DEVEL_ZIP;
        case BuildOptions::Command::Sources:
            client.getSources(o.argument, log);
            return "sources: " + o.argument;
        case BuildOptions::Command::Link:
            client.createFile(o.argument);
            return "linked " + o.workDir + "/src/" + o.argument + " -> " + kDataDir + "/" + o.argument;
        case BuildOptions::Command::Help:
            break;
    }
    return "";
}

// Prints what the tools wrote, ending with a line feed.
void printLog(std::string const& log) {
    std::cout << log;
    if (!log.empty() && log.back() != '\n') std::cout << '\n';
}

}  // namespace

int main(int argc, char* argv[]) {
    ParsedBuildCommand parsed = parseBuildCommand(argc, argv);
    if (!parsed.run) {
        (parsed.exitStatus == 0 ? std::cout : std::cerr) << parsed.message << std::flush;
        return parsed.exitStatus;
    }
    BuildOptions const& o = parsed.options;
    std::string log;
    try {
        NXAClient client(kPackageDir, kModulesDir, o.workDir.c_str(), 0, kFirstModulePort, 0, "", o.debug);
        std::string const done = perform(client, o, log);
        printLog(log);
        std::cout << done << std::endl;
        return 0;
    } catch (std::exception const& e) {
        // What the tools printed before the failure tells why it failed.
        printLog(log);
        std::cout << std::flush;
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
