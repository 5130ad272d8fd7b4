#include "interposed_platform.h"

#include <vlplatform/system.h>

#include "interpose.h"

namespace interposed {

std::function<int(std::string const&, std::string&)> command;
std::vector<std::string> commands;
std::optional<unsigned long> totalRam;

void reset() {
    command = nullptr;
    commands.clear();
    totalRam.reset();
}

int realGetCmdCallOutput(char const* cmd, std::string& out) {
    static auto* real = nxatest::nextDefinition<int (*)(char const*, std::string&)>(
        "_Z16getCmdCallOutputPKcRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    return real(cmd, out);
}

}  // namespace interposed

int getCmdCallOutput(char const* cmd, std::string& out) {
    interposed::commands.push_back(cmd);
    if (interposed::command) return interposed::command(cmd, out);
    return interposed::realGetCmdCallOutput(cmd, out);
}

unsigned long getTotalRam() {
    if (interposed::totalRam) return *interposed::totalRam;
    static auto* real = nxatest::nextDefinition<unsigned long (*)()>("_Z11getTotalRamv");
    return real();
}
