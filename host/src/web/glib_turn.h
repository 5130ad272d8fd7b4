// A GLib main context driven from the host's own loop, for the browser
// console's server, which runs on it.
#pragma once

#include <glib.h>
#include <vlplatform/fd_set.h>

#include <chrono>
#include <optional>
#include <set>
#include <vector>

namespace nxahost {

// Owns a main context and a main loop on it that is never run: instead, the
// host's loop asks for the context's descriptors and time-out (addFds) and,
// after its wait, hands back which of them are ready (dispatch), where the
// context's sources do their work. All on the calling thread; no thread of
// its own.
//
// One iteration of the context may span many turns of the host's loop: while
// none of its descriptors is ready and its time-out has not come, a turn
// neither asks the context again nor dispatches, so an idle context costs a
// turn nothing but its descriptors in the sets. A source that changes what it
// waits for meanwhile wakes the context (GLib writes its wake-up descriptor,
// one of those in the sets), which ends the iteration on the next turn.
//
// The context's descriptors are recorded with the platform
// (noteDescriptorOpened) when they first appear, so that the host's wait keeps
// them in its interest set like its own; one that is gone from the context is
// forgotten then. A descriptor closed and opened again under the same number
// between two iterations must be forgotten by whoever closes it (forget()).
class GlibTurn {
public:
    GlibTurn();
    // Forgets every descriptor it recorded.
    ~GlibTurn();
    GlibTurn(GlibTurn const&) = delete;
    GlibTurn& operator=(GlibTurn const&) = delete;

    // The main loop whose context this drives (for code that attaches its
    // sources to a loop it is given).
    GMainLoop* loop() const { return loop_; }

    // Adds the context's descriptors to `rd` (input, hang-up, error) and `wr`
    // (output), asking the context for them first when a new iteration
    // begins; returns `timeoutMs` lowered to the context's own time-out
    // (negative: none).
    int addFds(FdSet& rd, FdSet& wr, int timeoutMs);

    // Tells the context which of its descriptors the wait found ready in `rd`
    // and `wr`, and when one is (or its time-out has come) ends the iteration:
    // the sources that are due run. After a wait that failed, pass sets that
    // hold nothing.
    void dispatch(FdSet const& rd, FdSet const& wr);

    // The descriptor `fd` is closed (or about to be) by the code that owns it:
    // the platform forgets it now, before its number can come back.
    void forget(int fd);

    // Runs the sources that are ready now, without waiting, at most `rounds`
    // times (for closing down).
    void runPending(int rounds);

private:
    using Clock = std::chrono::steady_clock;

    void beginIteration();
    void recordDescriptors();

    GMainContext* context_;
    GMainLoop* loop_;
    std::vector<GPollFD> fds_;
    int polled_ = 0;
    gint priority_ = 0;
    bool prepared_ = false;
    std::optional<Clock::time_point> deadline_;
    std::set<int> recorded_;
};

}  // namespace nxahost
