// nxactl: the operator's tool; asks a running nxahost over the bus. See
// `nxactl --help` and README, "Operating the host".
#include <exception>
#include <iostream>

#include "commands.h"
#include "options.h"

int main(int argc, char* argv[]) {
    CtlCommandLine const commandLine = parseCtlCommandLine(argc, argv);
    if (!commandLine.run) {
        (commandLine.exitStatus == 0 ? std::cout : std::cerr) << commandLine.message;
        return commandLine.exitStatus;
    }
    try {
        return runCommand(commandLine.options);
    } catch (std::exception const& e) {
        std::cerr << "nxactl: " << e.what() << "\n";
    }
    return 1;
}
