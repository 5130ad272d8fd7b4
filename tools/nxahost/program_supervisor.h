// Module programs that end, and starting them again with back-off.
#pragma once

#include <nxaclient.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>

// Which ended programs are started again.
enum class RestartPolicy { onFailure, always, never };

// Watches the programs of a facade's modules. When one ends, it is reported
// once (a WARNING line with the module's name, how it ended and what happens
// next), its clients and subscribers are told ("[nxahost] program ended: ...")
// and the module announces "stopped" on the bus. Under the policy it is then
// started again after a delay: 1 s at first, doubled for each further restart
// up to 60 s, plus up to 20 % at random; a program that had run for 60 s
// starts again from 1 s. It never gives up. Only the ended module's program is
// restarted; its clients stay attached.
class ProgramSupervisor {
public:
    using Clock = std::chrono::steady_clock;

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

    // Forgets every module: call after (re)starting all of them.
    void startedAll(Clock::time_point now);
    // Looks at every module's program for the ones that have ended since. An
    // ended program is reported once its last output has been read from its
    // terminal (so its clients see that output before the notice), or a
    // second after its end at the latest. Returns whether one was reported.
    bool checkEnded(Clock::time_point now);
    // Reports the ended programs whose output has been read since; called on
    // every turn while settling() is true. Returns whether one was reported.
    bool settle(Clock::time_point now);
    bool settling() const { return !unsettled_.empty(); }
    // Starts again the programs whose delay has passed. A restart that fails
    // in the host is reported and tried again after the next delay; in a forked
    // copy of the host its exception goes on (see Host). Returns whether one was due.
    bool restartDue(Clock::time_point now);
    // Starts `module`'s program again now (an operator's request); false when
    // there is no such module.
    bool restartNow(std::string const& module, Clock::time_point now);
    // When the next restart is due, if one is.
    std::optional<Clock::time_point> nextDue() const;
    // The status of `module`'s program (a default one for a module never seen).
    Status status(std::string const& module) const;
    // How many programs are waiting to be started again, and how many have
    // ended for good.
    std::size_t restarting() const;
    std::size_t ended() const;

    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kLongestDelay{60};
    static constexpr std::chrono::seconds kRunLongEnough{60};

private:
    struct Program {
        Status status;
        std::chrono::milliseconds nextDelay{kFirstDelay};
        bool reported = false;
    };

    void ended(NXAClient::Module& module, Program& program, std::string const& how, bool failed,
               Clock::time_point now);
    void restart(NXAClient::Module& module, Program& program, Clock::time_point now);
    std::chrono::milliseconds delayFor(Program& program, Clock::time_point now);
    bool wantsRestart(bool failed) const;
    void schedule(Program& program, Clock::time_point at);
    void unschedule(Program& program);

    NXAClient& client_;
    RestartPolicy policy_;
    pid_t hostPid_;
    std::map<std::string, Program> programs_;
    std::size_t scheduled_ = 0;  // programs with a restart time
    // Ended programs not yet reported, with when their end was seen.
    std::map<std::string, Clock::time_point> unsettled_;
    static constexpr std::chrono::seconds kSettleLimit{1};
    std::mt19937 random_;
};

// How the child `pid` ended, read without reaping it ("exit status 3",
// "signal 9"); empty while it runs. `failed`: a non-zero status or a signal.
std::string endingOf(pid_t pid, bool& failed);
