#include <nxahost/log.h>
#include <nxahost/program_supervisor.h>
#include <unistd.h>

#include <algorithm>

namespace nxahost {
namespace {

using std::chrono::milliseconds;

// VLPBus::statusNames: the state a module whose program has ended announces.
constexpr char kStateStopped[] = "stopped";

std::string seconds(milliseconds delay) {
    // The nominal delay: what the random extra adds is not worth a mention.
    long const whole = static_cast<long>(delay.count() / 1000);
    return std::to_string(std::max(whole, 1L)) + " s";
}

}  // namespace

char const* stateName(ProgramState state) {
    switch (state) {
        case ProgramState::ended:
            return "ended";
        case ProgramState::restarting:
            return "restarting";
        case ProgramState::running:
            break;
    }
    return "running";
}

ProgramSupervisor::ProgramSupervisor(ModulePrograms& programs, RestartPolicy policy, Clock const& clock,
                                     Jitter& jitter, pid_t hostPid)
    : programs_(programs), policy_(policy), clock_(clock), jitter_(jitter), hostPid_(hostPid) {}

void ProgramSupervisor::startedAll() {
    for (auto& [module, program] : table_)
        answer(program, programs_.has(module) ? std::string() : "no module named " + module);
    table_.clear();
    unreported_.clear();
    scheduled_ = 0;
    ending_ = 0;
    time_point const now = clock_.now();
    for (std::string const& module : programs_.modules()) {
        Program& program = table_[module];
        program.status.pid = programs_.pid(module);
        program.status.startedAt = now;
    }
}

void ProgramSupervisor::abandonRestarts(std::string const& error) {
    for (auto& entry : table_) answer(entry.second, error);
}

bool ProgramSupervisor::checkEnded() {
    time_point const now = clock_.now();
    for (std::string const& module : programs_.modules()) {
        Program const& program = table_[module];
        if (program.reported || program.killAt || unreported_.count(module)) continue;
        if (programs_.ending(module)) unreported_.emplace(module, now);
    }
    return reportDrainedEnds();
}

bool ProgramSupervisor::reportDrainedEnds() {
    time_point const now = clock_.now();
    bool any = false;
    for (auto it = unreported_.begin(); it != unreported_.end();) {
        std::string const& module = it->first;
        bool const known = programs_.has(module);
        if (known && programs_.pendingOutput(module) > 0 && now - it->second < kReportLimit) {
            ++it;
            continue;
        }
        if (known) {
            if (std::optional<ProgramEnd> const end = programs_.ending(module))
                report(module, table_[module], *end);
            any = true;
        }
        it = unreported_.erase(it);
    }
    return any;
}

void ProgramSupervisor::report(std::string const& module, Program& program, ProgramEnd const& end) {
    program.reported = true;
    program.status.lastEnd = end.how;
    std::string next = "not restarted";
    if (wantsRestart(end.failed)) {
        milliseconds const delay = delayFor(program);
        program.status.state = ProgramState::restarting;
        schedule(program, clock_.now() + delay);
        next = "restart in " + seconds(delay);
    } else {
        program.status.state = ProgramState::ended;
        unschedule(program);
    }
    hostLog(kHostWarning, "module program ", module, " (pid ", programs_.pid(module),
            ") has ended: ", end.how, "; ", next);
    programs_.tell(module, "[" + logName() + "] program ended: " + end.how + "; " + next + "\n");
    programs_.announce(module, kStateStopped);
    if (end.failed && failureSeen_) failureSeen_(module, end.how);
}

bool ProgramSupervisor::wantsRestart(bool failed) const {
    return policy_ == RestartPolicy::always || (policy_ == RestartPolicy::onFailure && failed);
}

// Doubles from one restart to the next; a program that ran long enough starts over.
milliseconds ProgramSupervisor::delayFor(Program& program) {
    if (clock_.now() - program.status.startedAt >= kRunLongEnough) program.backoff.reset();
    return program.backoff.next(jitter_);
}

bool ProgramSupervisor::advance() {
    if (restarting() == 0) return false;
    time_point const now = clock_.now();
    bool any = false;
    for (std::string const& module : programs_.modules()) {
        Program& program = table_[module];
        if (program.status.restartAt && *program.status.restartAt <= now) {
            beginRestart(module, program);
            any = true;
        }
        if (program.killAt && finishRestart(module, program)) any = true;
    }
    return any;
}

bool ProgramSupervisor::requestRestart(std::string const& module, RestartDone done) {
    if (!programs_.has(module)) return false;
    Program& program = table_[module];
    program.waiters.push_back(std::move(done));
    if (!program.killAt) beginRestart(module, program);
    finishRestart(module, program);
    return true;
}

// The old program is asked to end; its end is not reported, it was asked for.
void ProgramSupervisor::beginRestart(std::string const& module, Program& program) {
    unschedule(program);
    unreported_.erase(module);
    program.status.state = ProgramState::restarting;
    setEnding(program, clock_.now() + kGrace);
    programs_.endProgram(module);
}

// True when the restart moved on: the old program was killed, or it is gone
// and the new one was started (or failed to start).
bool ProgramSupervisor::finishRestart(std::string const& module, Program& program) {
    if (programs_.reapProgram(module)) {
        clearEnding(program);
        start(module, program);
        return true;
    }
    if (program.killed || clock_.now() < *program.killAt) return false;
    hostLog(kHostWarning, "module program ", module, " (pid ", programs_.pid(module), ") did not end within ",
            kGrace.count(), " ms of SIGTERM; killing it");
    programs_.killProgram(module);
    program.killed = true;
    return true;
}

void ProgramSupervisor::start(std::string const& module, Program& program) {
    try {
        programs_.startProgram(module);
    } catch (std::exception const& e) {
        if (getpid() != hostPid_) throw;
        milliseconds const delay = delayFor(program);
        program.status.state = ProgramState::restarting;
        schedule(program, clock_.now() + delay);
        std::string const error = "cannot start module program " + module + " again: " + e.what();
        hostLog(kHostError, error, "; next attempt in ", seconds(delay));
        answer(program, error);
        if (failureSeen_) failureSeen_(module, std::string("cannot start: ") + e.what());
        return;
    }
    program.reported = false;
    program.status.state = ProgramState::running;
    program.status.pid = programs_.pid(module);
    program.status.startedAt = clock_.now();
    ++program.status.restarts;
    hostLog(kHostInfo, "module program ", module, " started again (pid ", program.status.pid, ")");
    answer(program, {});
}

void ProgramSupervisor::answer(Program& program, std::string const& error) {
    std::vector<RestartDone> waiters;
    waiters.swap(program.waiters);
    for (RestartDone const& done : waiters) done(error);
}

std::optional<ProgramSupervisor::time_point> ProgramSupervisor::nextDue() const {
    std::optional<time_point> next;
    // Asked on every turn: nothing to look through while no restart waits.
    if (restarting() == 0) return next;
    auto sooner = [&next](std::optional<time_point> const& at) {
        if (at && (!next || *at < *next)) next = at;
    };
    for (auto const& entry : table_) {
        sooner(entry.second.status.restartAt);
        // A killed program is collected when its end is signalled, not by the clock.
        if (!entry.second.killed) sooner(entry.second.killAt);
    }
    return next;
}

ProgramSupervisor::Status ProgramSupervisor::status(std::string const& module) const {
    auto it = table_.find(module);
    return it == table_.end() ? Status{} : it->second.status;
}

void ProgramSupervisor::schedule(Program& program, time_point at) {
    if (!program.status.restartAt) ++scheduled_;
    program.status.restartAt = at;
}

void ProgramSupervisor::unschedule(Program& program) {
    if (program.status.restartAt) --scheduled_;
    program.status.restartAt.reset();
}

void ProgramSupervisor::setEnding(Program& program, time_point killAt) {
    if (!program.killAt) ++ending_;
    program.killAt = killAt;
    program.killed = false;
}

void ProgramSupervisor::clearEnding(Program& program) {
    if (program.killAt) --ending_;
    program.killAt.reset();
    program.killed = false;
}

std::size_t ProgramSupervisor::ended() const {
    return static_cast<std::size_t>(std::count_if(table_.begin(), table_.end(), [](auto const& entry) {
        return entry.second.status.state == ProgramState::ended;
    }));
}

}  // namespace nxahost
