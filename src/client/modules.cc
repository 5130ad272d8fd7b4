// The module registry: one module per configured name with its own port, and
// the removal of modules whose manifest does not fit the machine.
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "nxaclient.h"
#include "ready_index.h"
#include "trace.h"

using nxa::trace::kModules;

NXAClient::Modules::Modules(unsigned short firstPort, unsigned long most)
    : port(firstPort), maxModules(most), proc(getpid()) {}

void NXAClient::Modules::configure(std::vector<std::string> const& names) {
    NXA_DEBUG(kModules, "#modulenames=", names.size());
    stop();
    byNameMade = false;
    // Ports wrap after 65535; port 0 then asks the system for any free port.
    std::uint32_t next = port;
    for (std::string const& name : names) {
        if (list.size() >= maxModules) {
            NXA_WARNING(kModules, "number of modules exceeded");
            continue;
        }
        list.push_back(std::make_unique<Module>(name, static_cast<unsigned short>(next % 65536), proc));
        ++next;
    }
    NXA_DEBUG(kModules, "#modules=", list.size(), " done");
}

void NXAClient::Modules::scan(std::string const& dir) {
    NXA_DEBUG(kModules, "before: #modules=", list.size());
    struct utsname system;
    if (uname(&system) != 0) throw IOException(errno, "cannot get architecture from system");
    NXA_DEBUG(kModules, "machine=", system.machine);
    std::string const machine = system.machine;
    forgetReadyIndex();
    byNameMade = false;
    for (auto it = list.begin(); it != list.end();) {
        if ((*it)->scan(dir, machine)) {
            ++it;
        } else {
            it = list.erase(it);
        }
    }
    NXA_DEBUG(kModules, "after: #modules=", list.size());
}

std::vector<std::string> NXAClient::Modules::getModuleNames() const {
    std::vector<std::string> names;
    names.reserve(list.size());
    for (auto const& module : list) names.push_back(module->getName());
    return names;
}
