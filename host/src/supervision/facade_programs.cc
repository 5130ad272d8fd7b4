#include <nxahost/facade_programs.h>
#include <sys/wait.h>
#include <vlplatform/messages.h>

namespace nxahost {

std::optional<ProgramEnd> endingOf(pid_t pid) {
    siginfo_t info{};
    if (pid <= 0 || waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        info.si_pid == 0) {
        return std::nullopt;
    }
    if (info.si_code == CLD_EXITED)
        return ProgramEnd{"exit status " + std::to_string(info.si_status), info.si_status != 0};
    return ProgramEnd{"signal " + std::to_string(info.si_status), true};
}

std::vector<std::string> FacadePrograms::modules() const {
    return client_.modules.getModuleNames();
}

bool FacadePrograms::has(std::string const& module) const {
    return find(module) != nullptr;
}

pid_t FacadePrograms::pid(std::string const& module) const {
    NXAClient::Module const* found = find(module);
    return found != nullptr ? found->getChildPid() : -1;
}

std::optional<ProgramEnd> FacadePrograms::ending(std::string const& module) const {
    return endingOf(pid(module));
}

std::size_t FacadePrograms::pendingOutput(std::string const& module) const {
    NXAClient::Module const* found = find(module);
    return found != nullptr ? found->pendingOutput() : 0;
}

void FacadePrograms::tell(std::string const& module, std::string const& text) {
    NXAClient::Module* found = find(module);
    if (found == nullptr) return;
    SystemMessage notice;
    notice.setText(text);
    found->handleInput(notice);
}

void FacadePrograms::announce(std::string const& module, std::string const& state) {
    if (NXAClient::Module const* found = find(module)) found->announce(state);
}

void FacadePrograms::endProgram(std::string const& module) {
    if (NXAClient::Module* found = find(module)) found->endProgram();
}

void FacadePrograms::killProgram(std::string const& module) {
    if (NXAClient::Module* found = find(module)) found->killProgram();
}

bool FacadePrograms::reapProgram(std::string const& module) {
    NXAClient::Module* found = find(module);
    return found == nullptr || found->reapProgram();
}

void FacadePrograms::startProgram(std::string const& module) {
    if (NXAClient::Module* found = find(module)) found->startProgram();
}

}  // namespace nxahost
