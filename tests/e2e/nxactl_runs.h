// The real nxactl binary run by a test, to the end or in the background.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace e2e {

// The nxactl binary under test, as the build passes it.
std::string ctlBinary();

// One finished run of nxactl.
struct CtlRun {
    int status = -1;  // exit status (128 + signal when killed)
    std::string out;  // standard output
    std::string err;  // standard error
    std::chrono::milliseconds took{0};
};

// Runs `nxactl args...` to its end, standard input from /dev/null.
CtlRun runCtl(std::vector<std::string> const& args);

// A shell command running `nxactl args...` in place of the shell (exec), for Background.
std::string ctlCommand(std::vector<std::string> const& args);

// Runs `nxactl --json args...` and parses its standard output; fails the test
// (and returns null) when it does not exit 0 with one JSON document.
nlohmann::json ctlJson(std::vector<std::string> const& args);

// The consumer with `id` in a `clients --json` list; null when absent.
nlohmann::json consumerWithId(nlohmann::json const& clients, std::string const& id);
// The module named `name` in a `status --json` list; null when absent.
nlohmann::json moduleNamed(nlohmann::json const& modules, std::string const& name);

}  // namespace e2e
