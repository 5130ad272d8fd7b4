// nxahost: the reference host daemon. See `nxahost --help`.
#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>

#include "descriptor_limit.h"
#include "host.h"
#include "host_log.h"
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
        raiseDescriptorLimit(std::min<std::size_t>(options.modules.size(), options.maxModules));
        host = std::make_unique<Host>(options);
        return host->run();
    } catch (std::exception const& e) {
        hostLog(kHostError, e.what());
    } catch (...) {
        hostLog(kHostError, "unknown exception");
    }
    return 1;
}
