// Child processes of one parent: fork, stop and reap.
#pragma once

#include <sys/types.h>

#include <set>

// Keeps the ids of the children forked through it until they are reaped.
// stop() and waitChildren() only touch children of this object; its children
// must be reaped only through it (a child reaped elsewhere frees its id for
// reuse while it is still recorded here).
class Proc {
public:
    // `self` is the id of the process that owns this object (usually getpid()).
    explicit Proc(pid_t self);

    // Forks. Returns the child's id in the parent (and records it), 0 in the
    // child, -1 with errno when the fork fails. In the child the object's copy
    // forgets the recorded children (they are not the child's), so a stop() in
    // the child never signals them. An exported function, so tests can
    // interpose it.
    pid_t fork();

    // Ends the child `pid`: SIGTERM to its process group (the child is expected
    // to lead one) and to itself, waits up to the grace time (stopGraceMs),
    // polling, for it to end, then SIGKILL to both and reaps it. A child that has
    // already ended is reaped at once (what is left of its group still gets the
    // SIGTERM). The id is removed from children(). Does nothing for an id that is
    // not a recorded child.
    void stop(pid_t pid);

    // Ends every recorded child together, as stop() ends one: SIGTERM to each
    // child and its group first, then one wait of at most the grace time for
    // all of them, then SIGKILL to those left, which are reaped. Stopping many
    // children thus takes one grace time, not one each. children() is empty
    // afterwards.
    void stopAll();

    // --- Ending a child without waiting, for a caller that must not block ---

    // Sends `sig` to the recorded child `pid` and to the process group it
    // leads, and returns at once. Nothing for an id that is not a recorded
    // child (so a reused id is never signalled).
    void signal(pid_t pid, int sig);

    // Reaps the recorded child `pid` if it has ended, never waiting. True when
    // it is gone: reaped now (and removed from children()) or not a recorded
    // child at all; false while it runs.
    bool collect(pid_t pid);

    // Reaps every recorded child that has ended, removes it from children() and
    // adds its id to *ended (when ended is not null). With wait false it never
    // waits for a child that is still running; with wait true it waits until every
    // recorded child has ended (a wait interrupted by a signal is resumed).
    void waitChildren(bool wait, std::set<int>* ended);

    // The ids of the recorded children that have not been reaped yet.
    std::set<int> const& children() const { return children_; }

    // The id given at construction.
    pid_t self() const { return self_; }

    // How long stop() waits after SIGTERM before it sends SIGKILL.
    static constexpr int stopGraceMs = 1000;

private:
    pid_t self_;
    std::set<int> children_;
};
