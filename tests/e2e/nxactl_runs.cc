#include "nxactl_runs.h"

#include <gtest/gtest.h>

#include "host_process.h"
#include "packages.h"
#include "shell.h"

namespace e2e {

std::string ctlBinary() {
    return NXA_E2E_CTL;
}

namespace {

std::string commandLine(std::vector<std::string> const& args) {
    std::string line = quoted(ctlBinary());
    for (std::string const& arg : args) line += " " + quoted(arg);
    return line;
}

}  // namespace

CtlRun runCtl(std::vector<std::string> const& args) {
    static int serial = 0;
    std::string const base = scratchDir() + "/nxactl" + std::to_string(++serial);
    auto const start = std::chrono::steady_clock::now();
    nxatest::ShellResult const r = nxatest::shell(commandLine(args) + " </dev/null >" +
                                                  quoted(base + ".out") + " 2>" + quoted(base + ".err"));
    CtlRun run;
    run.took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    run.status = r.status;
    run.out = nxatest::readFile(base + ".out");
    run.err = nxatest::readFile(base + ".err");
    return run;
}

std::string ctlCommand(std::vector<std::string> const& args) {
    return "exec " + commandLine(args);
}

nlohmann::json ctlJson(std::vector<std::string> const& args) {
    std::vector<std::string> withJson{"--json"};
    withJson.insert(withJson.end(), args.begin(), args.end());
    CtlRun const run = runCtl(withJson);
    EXPECT_EQ(run.status, 0) << run.err;
    if (run.status != 0) return nullptr;
    nlohmann::json parsed = nlohmann::json::parse(run.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << run.out;
    return parsed.is_discarded() ? nlohmann::json() : parsed;
}

namespace {

nlohmann::json entryWith(nlohmann::json const& list, char const* key, std::string const& value) {
    if (!list.is_array()) return nullptr;
    for (nlohmann::json const& entry : list) {
        if (entry.is_object() && entry.value(key, std::string()) == value) return entry;
    }
    return nullptr;
}

}  // namespace

nlohmann::json consumerWithId(nlohmann::json const& clients, std::string const& id) {
    return entryWith(clients, "id", id);
}

nlohmann::json moduleNamed(nlohmann::json const& modules, std::string const& name) {
    return entryWith(modules, "name", name);
}

}  // namespace e2e
