// nxactl's commands.
#pragma once

#include "options.h"

// Runs the command of `options` against the host and prints its outcome on
// standard output; returns the exit status. A failure (no broker, no answer,
// a request the host refused) is thrown as std::runtime_error with a one-line
// text for the user.
int runCommand(CtlOptions const& options);
