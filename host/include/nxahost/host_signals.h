// The signals the host daemon reacts to, turned into events its polling loop
// sees on a descriptor.
#pragma once

namespace nxahost {

// While alive: INT and TERM request a stop, HUP a reload, USR1 the run log, and
// CHLD reports an ended child; each arrival makes fd() readable. SIGPIPE is
// ignored (writes to a vanished client then fail with EPIPE instead of killing
// the host). Every process forked meanwhile starts with default dispositions
// for all of them, so module programs behave as if started from a shell.
// One instance per process.
class HostSignals {
public:
    enum Event : unsigned { kStop = 1, kReload = 2, kDumpLog = 4, kChildEnded = 8 };

    HostSignals();
    ~HostSignals();
    HostSignals(HostSignals const&) = delete;
    HostSignals& operator=(HostSignals const&) = delete;

    // Readable while events are pending.
    int fd() const { return readEnd_; }
    // The events that arrived since the last call (an or of Event bits); empties the descriptor.
    unsigned take();

private:
    int readEnd_ = -1;
};

}  // namespace nxahost
