#include "program_supervisor.h"

#include <sys/wait.h>
#include <unistd.h>
#include <vlplatform/messages.h>

#include <algorithm>

#include "host_log.h"

namespace {

using std::chrono::milliseconds;

// VLPBus::statusNames: the state a module whose program has ended announces.
constexpr std::size_t kStateStopped = 4;

std::string seconds(milliseconds delay) {
    // The nominal delay: what the random extra adds is not worth a mention.
    long const whole = static_cast<long>(delay.count() / 1000);
    return std::to_string(std::max(whole, 1L)) + " s";
}

// Sends `text` to the module's consumers as if its program had printed it.
void tellConsumers(NXAClient::Module& module, std::string const& text) {
    SystemMessage notice;
    notice.setText(text);
    module.handleInput(notice);
}

}  // namespace

std::string endingOf(pid_t pid, bool& failed) {
    siginfo_t info{};
    if (pid <= 0 || waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        info.si_pid == 0) {
        return {};
    }
    if (info.si_code == CLD_EXITED) {
        failed = info.si_status != 0;
        return "exit status " + std::to_string(info.si_status);
    }
    failed = true;
    return "signal " + std::to_string(info.si_status);
}

ProgramSupervisor::ProgramSupervisor(NXAClient& client, RestartPolicy policy, pid_t hostPid)
    : client_(client), policy_(policy), hostPid_(hostPid), random_(std::random_device{}()) {}

void ProgramSupervisor::startedAll(Clock::time_point now) {
    for (auto& entry : programs_) {
        bool const runs = client_.modules.find(entry.first) != nullptr;
        answer(entry.second, runs ? std::string() : "no module named " + entry.first);
    }
    programs_.clear();
    unsettled_.clear();
    scheduled_ = 0;
    ending_ = 0;
    for (NXAClient::Module* module : client_.modules.getModules()) {
        Program& program = programs_[module->getName()];
        program.status.state = "running";
        program.status.pid = module->getChildPid();
        program.status.startedAt = now;
    }
}

void ProgramSupervisor::abandonRestarts(std::string const& error) {
    for (auto& entry : programs_) answer(entry.second, error);
}

bool ProgramSupervisor::checkEnded(Clock::time_point now) {
    for (NXAClient::Module* module : client_.modules.getModules()) {
        Program const& program = programs_[module->getName()];
        if (program.reported || program.killAt || unsettled_.count(module->getName())) continue;
        bool failed = false;
        if (!endingOf(module->getChildPid(), failed).empty()) unsettled_.emplace(module->getName(), now);
    }
    return reportDrainedEnds(now);
}

bool ProgramSupervisor::reportDrainedEnds(Clock::time_point now) {
    bool any = false;
    for (auto it = unsettled_.begin(); it != unsettled_.end();) {
        NXAClient::Module* module = client_.modules.find(it->first);
        bool const drained =
            module == nullptr || module->pendingOutput() == 0 || now - it->second >= kSettleLimit;
        if (!drained) {
            ++it;
            continue;
        }
        if (module != nullptr) {
            bool failed = false;
            std::string const how = endingOf(module->getChildPid(), failed);
            if (!how.empty()) ended(*module, programs_[module->getName()], how, failed, now);
            any = true;
        }
        it = unsettled_.erase(it);
    }
    return any;
}

void ProgramSupervisor::ended(NXAClient::Module& module, Program& program, std::string const& how,
                              bool failed, Clock::time_point now) {
    program.reported = true;
    program.status.lastEnd = how;
    std::string next = "not restarted";
    if (wantsRestart(failed)) {
        milliseconds const delay = delayFor(program, now);
        program.status.state = "restarting";
        schedule(program, now + delay);
        next = "restart in " + seconds(delay);
    } else {
        program.status.state = "ended";
        unschedule(program);
    }
    hostLog(kHostWarning, "module program ", module.getName(), " (pid ", module.getChildPid(),
            ") has ended: ", how, "; ", next);
    tellConsumers(module, "[nxahost] program ended: " + how + "; " + next + "\n");
    module.announce(VLPBus::statusNames[kStateStopped]);
}

bool ProgramSupervisor::wantsRestart(bool failed) const {
    return policy_ == RestartPolicy::always || (policy_ == RestartPolicy::onFailure && failed);
}

// Doubles from one restart to the next; a program that ran long enough starts over.
milliseconds ProgramSupervisor::delayFor(Program& program, Clock::time_point now) {
    if (now - program.status.startedAt >= kRunLongEnough) program.nextDelay = kFirstDelay;
    milliseconds const base = program.nextDelay;
    program.nextDelay = std::min<milliseconds>(base * 2, kLongestDelay);
    std::uniform_int_distribution<long> jitter(0, static_cast<long>(base.count() / 5));
    return base + milliseconds(jitter(random_));
}

bool ProgramSupervisor::advance(Clock::time_point now) {
    if (restarting() == 0) return false;
    bool any = false;
    for (NXAClient::Module* module : client_.modules.getModules()) {
        Program& program = programs_[module->getName()];
        if (program.status.restartAt && *program.status.restartAt <= now) {
            beginRestart(*module, program, now);
            any = true;
        }
        if (program.killAt && finishRestart(*module, program, now)) any = true;
    }
    return any;
}

bool ProgramSupervisor::requestRestart(std::string const& name, Clock::time_point now, RestartDone done) {
    NXAClient::Module* module = client_.modules.find(name);
    if (module == nullptr) return false;
    Program& program = programs_[name];
    program.waiters.push_back(std::move(done));
    if (!program.killAt) beginRestart(*module, program, now);
    finishRestart(*module, program, now);
    return true;
}

// The old program is asked to end; its end is not reported, it was asked for.
void ProgramSupervisor::beginRestart(NXAClient::Module& module, Program& program, Clock::time_point now) {
    unschedule(program);
    unsettled_.erase(module.getName());
    program.status.state = "restarting";
    program.killed = false;
    setEnding(program, now + kGrace);
    module.endProgram();
}

// True when the restart moved on: the old program was killed, or it is gone
// and the new one was started (or failed to start).
bool ProgramSupervisor::finishRestart(NXAClient::Module& module, Program& program, Clock::time_point now) {
    if (module.reapProgram()) {
        clearEnding(program);
        startProgram(module, program, now);
        return true;
    }
    if (program.killed || now < *program.killAt) return false;
    hostLog(kHostWarning, "module program ", module.getName(), " (pid ", module.getChildPid(),
            ") did not end within ", kGrace.count(), " ms of SIGTERM; killing it");
    module.killProgram();
    program.killed = true;
    return true;
}

void ProgramSupervisor::startProgram(NXAClient::Module& module, Program& program, Clock::time_point now) {
    try {
        module.startProgram();
    } catch (std::exception const& e) {
        if (getpid() != hostPid_) throw;
        milliseconds const delay = delayFor(program, now);
        program.status.state = "restarting";
        schedule(program, now + delay);
        std::string const error =
            std::string("cannot start module program ") + module.getName() + " again: " + e.what();
        hostLog(kHostError, error, "; next attempt in ", seconds(delay));
        answer(program, error);
        return;
    }
    program.reported = false;
    program.status.state = "running";
    program.status.pid = module.getChildPid();
    program.status.startedAt = now;
    ++program.status.restarts;
    hostLog(kHostInfo, "module program ", module.getName(), " started again (pid ", module.getChildPid(),
            ")");
    answer(program, {});
}

void ProgramSupervisor::answer(Program& program, std::string const& error) {
    std::vector<RestartDone> waiters;
    waiters.swap(program.waiters);
    for (RestartDone const& done : waiters) done(error);
}

std::optional<ProgramSupervisor::Clock::time_point> ProgramSupervisor::nextDue() const {
    std::optional<Clock::time_point> next;
    // Asked on every turn: nothing to look through while no restart waits.
    if (restarting() == 0) return next;
    auto sooner = [&next](std::optional<Clock::time_point> const& at) {
        if (at && (!next || *at < *next)) next = at;
    };
    for (auto const& entry : programs_) {
        sooner(entry.second.status.restartAt);
        // A killed program is collected when its end is signalled, not by the clock.
        if (!entry.second.killed) sooner(entry.second.killAt);
    }
    return next;
}

ProgramSupervisor::Status ProgramSupervisor::status(std::string const& module) const {
    auto it = programs_.find(module);
    return it == programs_.end() ? Status{} : it->second.status;
}

std::size_t ProgramSupervisor::restarting() const {
    return scheduled_ + ending_;
}

void ProgramSupervisor::schedule(Program& program, Clock::time_point at) {
    if (!program.status.restartAt) ++scheduled_;
    program.status.restartAt = at;
}

void ProgramSupervisor::unschedule(Program& program) {
    if (program.status.restartAt) --scheduled_;
    program.status.restartAt.reset();
}

void ProgramSupervisor::setEnding(Program& program, Clock::time_point killAt) {
    if (!program.killAt) ++ending_;
    program.killAt = killAt;
}

void ProgramSupervisor::clearEnding(Program& program) {
    if (program.killAt) --ending_;
    program.killAt.reset();
    program.killed = false;
}

std::size_t ProgramSupervisor::ended() const {
    return static_cast<std::size_t>(std::count_if(programs_.begin(), programs_.end(), [](auto const& entry) {
        return entry.second.status.state == "ended";
    }));
}
