#include "interposed_platform.h"

#include <dlfcn.h>
#include <vlplatform/system.h>

namespace interposed {

std::function<int(std::string const&, std::string&)> command;
std::vector<std::string> commands;
std::optional<unsigned long> totalRam;

void reset() {
    command = nullptr;
    commands.clear();
    totalRam.reset();
}

namespace {

// The next definition of `symbol` after this binary's: the platform library's.
template <class Function>
Function* next(char const* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

int realGetCmdCallOutput(char const* cmd, std::string& out) {
    static auto* real = next<int(char const*, std::string&)>(
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
    static auto* real = reinterpret_cast<unsigned long (*)()>(dlsym(RTLD_NEXT, "_Z11getTotalRamv"));
    return real();
}
