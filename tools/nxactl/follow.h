// nxactl follow: a module's output, live, as a bus subscriber.
#pragma once

#include "options.h"

// Checks with a status request that the module options.args[0] runs, then
// subscribes to its output ("71-NXAStartOutput" to "NXAModule_<module>") and
// writes the text of every kind-34 message the module sends, unchanged, to
// standard output until INT or TERM arrives or standard output is closed;
// then unsubscribes ("72-NXAStopOutput") and returns 0. Throws as runCommand.
int follow(CtlOptions const& options);
