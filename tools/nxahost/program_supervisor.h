// Module programs that end, and starting them again with back-off.
#pragma once

#include <nxaclient.h>
#include <sys/types.h>
#include <vlplatform/proc.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

// Which ended programs are started again.
enum class RestartPolicy { onFailure, always, never };

// Watches the programs of a facade's modules. When one ends, it is reported
// once (a WARNING line with the module's name, how it ended and what happens
// next), its clients and subscribers are told ("[nxahost] program ended: ...")
// and the module announces "stopped" on the bus. Under the policy it is then
// started again after a delay: 1 s at first, doubled for each further restart
// up to 60 s, plus up to 20 % at random; a program that had run for 60 s
// starts again from 1 s. It never gives up. Only the ended module's program is
// restarted; its clients stay attached. Nothing here waits for a program to
// end: a restart asks the old program to end and goes on; the host's turns
// collect it, kill it after its grace time and start the new one.
class ProgramSupervisor {
public:
    using Clock = std::chrono::steady_clock;
    // Told how a requested restart went: an empty text once the new program
    // runs, otherwise why it could not be started.
    using RestartDone = std::function<void(std::string const& error)>;

    // What an operator is told about one module's program.
    struct Status {
        std::string state;  // "running", "ended", "restarting"
        pid_t pid = -1;
        Clock::time_point startedAt;
        unsigned restarts = 0;
        std::string lastEnd;  // "exit status 3", "signal 9", or empty
        std::optional<Clock::time_point> restartAt;
    };

    // `hostPid`: the host's own process id, to tell a forked copy of the host
    // (in which an exception of a restart must go on) from the host.
    ProgramSupervisor(NXAClient& client, RestartPolicy policy, pid_t hostPid);

    // Forgets every module: call after (re)starting all of them. Restarts
    // still waiting are answered: done for a module that runs again, "no
    // module named ..." for one that is gone.
    void startedAll(Clock::time_point now);
    // Answers every restart still waiting with `error` and forgets it (the
    // host is stopping).
    void abandonRestarts(std::string const& error);
    // Looks at every module's program for the ones that have ended since. An
    // ended program is reported once its last output has been read from its
    // terminal (so its clients see that output before the notice), or a
    // second after its end at the latest. Programs being restarted are not
    // reported: their end was asked for. Returns whether one was reported.
    bool checkEnded(Clock::time_point now);
    // Reports the ended programs whose output has been read since; called on
    // every turn while reportingEnds() is true. Returns whether one was reported.
    bool reportDrainedEnds(Clock::time_point now);
    bool reportingEnds() const { return !unsettled_.empty(); }
    // Moves restarts on, never waiting: a restart whose delay has passed asks
    // its old program to end; an old program that has ended is collected and
    // the new one started; one still running at the end of its grace time
    // (Proc::stopGraceMs) is killed. A start that fails in the host is
    // reported and tried again after the next delay; in a forked copy of the
    // host its exception goes on (see Host). Call on every turn on which
    // nextDue() has come and whenever a child has ended. Returns whether
    // anything changed.
    bool advance(Clock::time_point now);
    // Starts `module`'s program again (an operator's request) without waiting
    // for the old one to end: it is asked to end now and the new program
    // starts once it has (see advance()); `done` is called then. A request
    // for a module whose restart is under way joins it: one new program, each
    // request answered. False, and `done` is never called, when there is no
    // such module.
    bool requestRestart(std::string const& module, Clock::time_point now, RestartDone done);
    // When advance() has something to do next by the clock, if anything.
    std::optional<Clock::time_point> nextDue() const;
    // The status of `module`'s program (a default one for a module never seen).
    Status status(std::string const& module) const;
    // How many programs are waiting to be started again or being restarted,
    // and how many have ended for good.
    std::size_t restarting() const;
    std::size_t ended() const;

    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kLongestDelay{60};
    static constexpr std::chrono::seconds kRunLongEnough{60};
    // How long an old program has to end after SIGTERM before it is killed.
    static constexpr std::chrono::milliseconds kGrace{Proc::stopGraceMs};

private:
    struct Program {
        Status status;
        std::chrono::milliseconds nextDelay{kFirstDelay};
        bool reported = false;
        // Set while the old program of a restart is ending: when it is killed.
        std::optional<Clock::time_point> killAt;
        bool killed = false;
        std::vector<RestartDone> waiters;
    };

    void ended(NXAClient::Module& module, Program& program, std::string const& how, bool failed,
               Clock::time_point now);
    void beginRestart(NXAClient::Module& module, Program& program, Clock::time_point now);
    bool finishRestart(NXAClient::Module& module, Program& program, Clock::time_point now);
    void startProgram(NXAClient::Module& module, Program& program, Clock::time_point now);
    void answer(Program& program, std::string const& error);
    std::chrono::milliseconds delayFor(Program& program, Clock::time_point now);
    bool wantsRestart(bool failed) const;
    void schedule(Program& program, Clock::time_point at);
    void unschedule(Program& program);
    void setEnding(Program& program, Clock::time_point killAt);
    void clearEnding(Program& program);

    NXAClient& client_;
    RestartPolicy policy_;
    pid_t hostPid_;
    std::map<std::string, Program> programs_;
    std::size_t scheduled_ = 0;  // programs with a restart time
    std::size_t ending_ = 0;     // programs whose old program is ending
    // Ended programs not yet reported, with when their end was seen.
    std::map<std::string, Clock::time_point> unsettled_;
    static constexpr std::chrono::seconds kSettleLimit{1};
    std::mt19937 random_;
};

// How the child `pid` ended, read without reaping it ("exit status 3",
// "signal 9"); empty while it runs. `failed`: a non-zero status or a signal.
std::string endingOf(pid_t pid, bool& failed);
