// getCmdCallOutput and getTotalRam replaced in the test binary: the library's
// calls reach these, which record the commands and answer as the test says.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace interposed {

// Answers getCmdCallOutput in place of the shell; unset: the real one runs.
extern std::function<int(std::string const& cmd, std::string& out)> command;
// Every command given to getCmdCallOutput, in order.
extern std::vector<std::string> commands;
// What getTotalRam returns; unset: the real value.
extern std::optional<unsigned long> totalRam;

// Back to the real functions, with no command recorded.
void reset();

// The platform's own getCmdCallOutput.
int realGetCmdCallOutput(char const* cmd, std::string& out);

}  // namespace interposed
