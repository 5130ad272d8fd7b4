// nxahost: the reference host daemon. See `nxahost --help`.
#include <nxahost/descriptor_limit.h>
#include <nxahost/log.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>

#include "host.h"
#include "options.h"

int main(int argc, char* argv[]) {
    ParsedCommandLine const commandLine = parseCommandLine(argc, argv);
    if (!commandLine.run) {
        (commandLine.exitStatus == 0 ? std::cout : std::cerr) << commandLine.message;
        return commandLine.exitStatus;
    }
    // Declared outside the try: the host (and with it the children) is stopped
    // only after the error line has been written.
    std::unique_ptr<Host> host;
    try {
        HostOptions const& options = commandLine.options;
        nxahost::raiseDescriptorLimit(std::min<std::size_t>(options.modules.size(), options.maxModules));
        host = std::make_unique<Host>(options);
        return host->run();
    } catch (UnusableSetup const& e) {
        std::cerr << "nxahost: " << e.what() << "\n";
        return 2;
    } catch (std::exception const& e) {
        nxahost::hostLog(nxahost::kHostError, e.what());
    } catch (...) {
        nxahost::hostLog(nxahost::kHostError, "unknown exception");
    }
    return 1;
}
