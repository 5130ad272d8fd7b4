// Stand-ins for the host kit's tests: a clock the test sets, a jitter that
// says what it was asked, and module programs that do what the test says.
#pragma once

#include <nxahost/clock.h>
#include <nxahost/program_supervisor.h>

#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace hosttest {

using namespace std::chrono_literals;

// A clock that stands still until the test moves it.
class FakeClock : public nxahost::Clock {
public:
    time_point now() const override { return now_; }
    void advance(duration by) { now_ += by; }

private:
    time_point now_ = time_point(std::chrono::hours(1000));
};

// Gives `fraction` of what it is asked for (0 by default), and remembers the asks.
class FakeJitter : public nxahost::Jitter {
public:
    std::chrono::milliseconds upTo(std::chrono::milliseconds most) override {
        asked.push_back(most);
        return std::chrono::milliseconds(static_cast<long long>(most.count() * fraction));
    }
    double fraction = 0;
    std::vector<std::chrono::milliseconds> asked;
};

// One module's program as the fake keeps it.
struct FakeProgram {
    pid_t pid = -1;
    std::optional<nxahost::ProgramEnd> end;  // set once it has ended, until collected
    std::size_t pending = 0;                 // output its terminal still holds
    bool obeysTerm = true;                   // ends at once on SIGTERM
    bool failStart = false;                  // startProgram throws
    int terms = 0, kills = 0, starts = 0;
    std::vector<std::string> told;
    std::vector<std::string> announced;
};

// Module programs that end when the test says, and start at once.
class FakePrograms : public nxahost::ModulePrograms {
public:
    // Modules that run from the start, in this order.
    explicit FakePrograms(std::vector<std::string> names) : order_(std::move(names)) {
        for (std::string const& name : order_) programs_[name].pid = nextPid_++;
    }

    // The program of `module` exits with `status` (0: success).
    void exit(std::string const& module, int status) {
        programs_.at(module).end = nxahost::ProgramEnd{"exit status " + std::to_string(status), status != 0};
    }
    // The program of `module` is ended by signal `number`.
    void killBySignal(std::string const& module, int number) {
        programs_.at(module).end = nxahost::ProgramEnd{"signal " + std::to_string(number), true};
    }
    FakeProgram& operator[](std::string const& module) { return programs_.at(module); }
    // The modules are configured again: `names` run with fresh programs.
    void reconfigure(std::vector<std::string> names) {
        order_ = std::move(names);
        programs_.clear();
        for (std::string const& name : order_) programs_[name].pid = nextPid_++;
    }

    std::vector<std::string> modules() const override { return order_; }
    bool has(std::string const& module) const override { return programs_.count(module) != 0; }
    pid_t pid(std::string const& module) const override { return programs_.at(module).pid; }
    std::optional<nxahost::ProgramEnd> ending(std::string const& module) const override {
        FakeProgram const& p = programs_.at(module);
        return p.pid == -1 ? std::nullopt : p.end;
    }
    std::size_t pendingOutput(std::string const& module) const override {
        return programs_.at(module).pending;
    }
    void tell(std::string const& module, std::string const& text) override {
        programs_.at(module).told.push_back(text);
    }
    void announce(std::string const& module, std::string const& state) override {
        programs_.at(module).announced.push_back(state);
    }
    void endProgram(std::string const& module) override {
        FakeProgram& p = programs_.at(module);
        ++p.terms;
        if (p.pid != -1 && p.obeysTerm && !p.end) p.end = nxahost::ProgramEnd{"signal 15", true};
    }
    void killProgram(std::string const& module) override {
        FakeProgram& p = programs_.at(module);
        ++p.kills;
        if (p.pid != -1 && !p.end) p.end = nxahost::ProgramEnd{"signal 9", true};
    }
    bool reapProgram(std::string const& module) override {
        FakeProgram& p = programs_.at(module);
        if (p.pid == -1) return true;
        if (!p.end) return false;
        p.pid = -1;
        p.end.reset();
        return true;
    }
    void startProgram(std::string const& module) override {
        FakeProgram& p = programs_.at(module);
        if (p.pid != -1) throw std::logic_error("the program still runs");
        if (p.failStart) throw std::runtime_error("cannot fork: Resource temporarily unavailable");
        p.pid = nextPid_++;
        ++p.starts;
    }

private:
    std::vector<std::string> order_;
    std::map<std::string, FakeProgram> programs_;
    pid_t nextPid_ = 100;
};

}  // namespace hosttest
