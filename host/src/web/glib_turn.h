// A GLib main context driven from the host's own loop, for the browser
// console's server, which runs on it.
#pragma once

#include <glib.h>
#include <vlplatform/fd_set.h>

#include <vector>

namespace nxahost {

// Owns a main context and a main loop on it that is never run: instead, every
// turn of the host's loop asks for the context's descriptors and time-out
// (addFds) and, after its one wait, hands back which of them are ready
// (dispatch), where the context's sources do their work. All on the calling
// thread; no thread of its own.
class GlibTurn {
public:
    GlibTurn();
    ~GlibTurn();
    GlibTurn(GlibTurn const&) = delete;
    GlibTurn& operator=(GlibTurn const&) = delete;

    // The main loop whose context this drives (for code that attaches its
    // sources to a loop it is given).
    GMainLoop* loop() const { return loop_; }

    // Prepares the context for this turn: adds its descriptors to `rd` (input,
    // hang-up, error) and `wr` (output) and returns `timeoutMs` lowered to the
    // context's own time-out (negative: none).
    int addFds(FdSet& rd, FdSet& wr, int timeoutMs);

    // Ends the turn: tells the context which of its descriptors the wait found
    // ready in `rd` and `wr` and runs the sources that are due. After a wait
    // that failed, pass sets that hold nothing.
    void dispatch(FdSet const& rd, FdSet const& wr);

    // Runs the sources that are ready now, without waiting, at most `rounds`
    // times (for closing down).
    void runPending(int rounds);

private:
    GMainContext* context_;
    GMainLoop* loop_;
    std::vector<GPollFD> fds_;
    int polled_ = 0;
    gint priority_ = 0;
    bool prepared_ = false;
};

}  // namespace nxahost
