// Module programs that end, and starting them again with back-off.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "backoff.h"
#include "clock.h"

namespace nxahost {

// Which ended programs are started again.
enum class RestartPolicy { onFailure, always, never };

// A module's program as an operator sees it: running; ended for good (the
// policy does not start it again); restarting (a new start is due, or the
// old program is ending for a restart).
enum class ProgramState { running, ended, restarting };

// "running", "ended" or "restarting".
char const* stateName(ProgramState state);

// How a program ended: "exit status 3", "signal 9"; failed for a non-zero
// status or a signal.
struct ProgramEnd {
    std::string how;
    bool failed = false;
};

// What the supervisor needs of the modules whose programs it watches, by
// module name. FacadePrograms (facade_programs.h) gives it for an NXAClient;
// tests give a fake.
class ModulePrograms {
public:
    virtual ~ModulePrograms() = default;

    // The modules, in configuration order.
    virtual std::vector<std::string> modules() const = 0;
    virtual bool has(std::string const& module) const = 0;
    // The program's process id; -1 without one.
    virtual pid_t pid(std::string const& module) const = 0;
    // How the program ended, seen without collecting it; nothing while it
    // runs or when there is no program.
    virtual std::optional<ProgramEnd> ending(std::string const& module) const = 0;
    // Bytes the program printed that its terminal still holds.
    virtual std::size_t pendingOutput(std::string const& module) const = 0;
    // Gives `text` to the module's consumers as if its program had printed it.
    virtual void tell(std::string const& module, std::string const& text) = 0;
    // Tells the bus server the module's state (one of VLPBus::statusNames).
    virtual void announce(std::string const& module, std::string const& state) = 0;
    // The steps of a restart, none of which waits (see NXAClient::Module):
    // SIGTERM, SIGKILL, collecting the ended program (true when none is
    // left), starting the program again (throws when it cannot).
    virtual void endProgram(std::string const& module) = 0;
    virtual void killProgram(std::string const& module) = 0;
    virtual bool reapProgram(std::string const& module) = 0;
    virtual void startProgram(std::string const& module) = 0;
};

// Watches the programs of the modules. When one ends, it is reported once (a
// WARNING line with the module's name, how it ended and what happens next),
// its clients and subscribers are told ("[nxahost] program ended: ...", with
// the log name, see log.h) and
// the module announces "stopped" on the bus. Under the policy it is then
// started again after a delay: 1 s at first, doubled for each further restart
// up to 60 s, plus up to 20 % at random; a program that had run for 60 s
// starts again from 1 s. It never gives up. Only the ended module's program is
// restarted; its clients stay attached. Nothing here waits for a program to
// end: a restart asks the old program to end and goes on; the host's turns
// collect it, kill it after its grace time and start the new one. Time comes
// from `clock`, the random part of each delay from `jitter`.
class ProgramSupervisor {
public:
    using time_point = Clock::time_point;
    // Told how a requested restart went: an empty text once the new program
    // runs, otherwise why it could not be started.
    using RestartDone = std::function<void(std::string const& error)>;
    // Told of every program that ended with a failure ("exit status 1",
    // "signal 9"), once it is reported, and of every start that failed
    // ("cannot start: ..."). Called from inside the supervisor's own calls: it
    // must not reconfigure the modules there and then.
    using FailureSeen = std::function<void(std::string const& module, std::string const& how)>;

    // What an operator is told about one module's program.
    struct Status {
        ProgramState state = ProgramState::running;
        pid_t pid = -1;
        time_point startedAt;
        unsigned restarts = 0;
        std::string lastEnd;  // "exit status 3", "signal 9", or empty
        std::optional<time_point> restartAt;
    };

    // `hostPid`: the host's own process id, to tell a forked copy of the host
    // (in which an exception of a start must go on) from the host. The
    // programs, clock and jitter must outlive the supervisor.
    ProgramSupervisor(ModulePrograms& programs, RestartPolicy policy, Clock const& clock, Jitter& jitter,
                      pid_t hostPid);

    // Sets who is told of failures (see FailureSeen); nobody at first.
    void onFailure(FailureSeen seen) { failureSeen_ = std::move(seen); }

    // Forgets every module: call after (re)starting all of them. Restarts
    // still waiting are answered: done for a module that runs again, "no
    // module named ..." for one that is gone.
    void startedAll();
    // Answers every restart still waiting with `error` and forgets it (the
    // host is stopping).
    void abandonRestarts(std::string const& error);
    // Looks at every module's program for the ones that have ended since. An
    // ended program is reported once its last output has been read from its
    // terminal (so its clients see that output before the notice), or a
    // second after its end at the latest. Programs being restarted are not
    // reported: their end was asked for. Returns whether one was reported.
    bool checkEnded();
    // Reports the ended programs whose output has been read since; called on
    // every turn while reportingEnds() is true. Returns whether one was reported.
    bool reportDrainedEnds();
    bool reportingEnds() const { return !unreported_.empty(); }
    // Moves restarts on, never waiting: a restart whose delay has passed asks
    // its old program to end; an old program that has ended is collected and
    // the new one started; one still running at the end of its grace time
    // (kGrace) is killed. A start that fails in the host is reported and tried
    // again after the next delay; in a forked copy of the host its exception
    // goes on. Call on every turn on which nextDue() has come and whenever a
    // child has ended. Returns whether anything changed.
    bool advance();
    // Starts `module`'s program again (an operator's request) without waiting
    // for the old one to end: it is asked to end now and the new program
    // starts once it has (see advance()); `done` is called then. A request
    // for a module whose restart is under way joins it: one new program, each
    // request answered. False, and `done` is never called, when there is no
    // such module.
    bool requestRestart(std::string const& module, RestartDone done);
    // When advance() has something to do next by the clock, if anything.
    std::optional<time_point> nextDue() const;
    // The status of `module`'s program (a default one for a module never seen).
    Status status(std::string const& module) const;
    // How many programs are waiting to be started again or being restarted,
    // and how many have ended for good.
    std::size_t restarting() const { return scheduled_ + ending_; }
    std::size_t ended() const;

    static constexpr std::chrono::seconds kRunLongEnough{60};
    // How long an old program has to end after SIGTERM before it is killed.
    static constexpr std::chrono::milliseconds kGrace{1000};
    // How long an ended program's last output may take to be read before its
    // end is reported anyway.
    static constexpr std::chrono::seconds kReportLimit{1};

private:
    struct Program {
        Status status;
        Backoff backoff;
        bool reported = false;
        // Set while the old program of a restart is ending: when it is killed.
        std::optional<time_point> killAt;
        bool killed = false;
        std::vector<RestartDone> waiters;
    };

    void report(std::string const& module, Program& program, ProgramEnd const& end);
    void beginRestart(std::string const& module, Program& program);
    bool finishRestart(std::string const& module, Program& program);
    void start(std::string const& module, Program& program);
    void answer(Program& program, std::string const& error);
    std::chrono::milliseconds delayFor(Program& program);
    bool wantsRestart(bool failed) const;
    void schedule(Program& program, time_point at);
    void unschedule(Program& program);
    void setEnding(Program& program, time_point killAt);
    void clearEnding(Program& program);

    ModulePrograms& programs_;
    RestartPolicy policy_;
    Clock const& clock_;
    Jitter& jitter_;
    pid_t hostPid_;
    std::map<std::string, Program> table_;
    std::size_t scheduled_ = 0;  // programs with a restart time
    std::size_t ending_ = 0;     // programs whose old program is ending
    // Ended programs not yet reported, with when their end was seen.
    std::map<std::string, time_point> unreported_;
    FailureSeen failureSeen_;
};

}  // namespace nxahost
