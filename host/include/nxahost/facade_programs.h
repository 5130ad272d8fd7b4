// The programs of an NXAClient's modules, as ProgramSupervisor sees them.
#pragma once

#include <nxaclient.h>

#include "program_supervisor.h"

namespace nxahost {

// ModulePrograms for the modules the facade `client` runs now: each call finds
// the module by name among client.modules. Holds the facade by reference.
class FacadePrograms : public ModulePrograms {
public:
    explicit FacadePrograms(NXAClient& client) : client_(client) {}

    std::vector<std::string> modules() const override;
    bool has(std::string const& module) const override;
    pid_t pid(std::string const& module) const override;
    std::optional<ProgramEnd> ending(std::string const& module) const override;
    std::size_t pendingOutput(std::string const& module) const override;
    void tell(std::string const& module, std::string const& text) override;
    void announce(std::string const& module, std::string const& state) override;
    void endProgram(std::string const& module) override;
    void killProgram(std::string const& module) override;
    bool reapProgram(std::string const& module) override;
    // Starts the program on a fresh terminal (NXAClient::Module::startProgram);
    // in the forked child, an exception of the start comes out of here.
    void startProgram(std::string const& module) override;

private:
    NXAClient::Module* find(std::string const& module) const { return client_.modules.find(module); }

    NXAClient& client_;
};

// How the child `pid` ended, read without collecting it; nothing while it
// runs, for -1, and for an id that is no child of this process.
std::optional<ProgramEnd> endingOf(pid_t pid);

}  // namespace nxahost
