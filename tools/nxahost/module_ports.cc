#include "module_ports.h"

std::vector<ModulePort> runningModulePorts(std::vector<std::string> const& configured, unsigned long maxModules,
                                           unsigned short firstPort, std::vector<std::string> const& installed) {
    std::vector<ModulePort> running;
    std::size_t next = 0;
    for (std::size_t k = 0; k < configured.size() && k < maxModules && next < installed.size(); ++k) {
        if (configured[k] != installed[next]) continue;
        running.push_back({installed[next], static_cast<unsigned short>((firstPort + k) % 65536)});
        ++next;
    }
    return running;
}
