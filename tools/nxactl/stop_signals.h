// INT and TERM as events a polling loop sees on a descriptor.
#pragma once

// While alive: INT and TERM are blocked and arrive on fd() instead, which is
// then readable; the previous signal mask comes back on destruction. One
// instance at a time.
class StopSignals {
public:
    // Throws std::runtime_error when the descriptor cannot be made.
    StopSignals();
    ~StopSignals();
    StopSignals(StopSignals const&) = delete;
    StopSignals& operator=(StopSignals const&) = delete;

    int fd() const { return fd_; }
    // Whether INT or TERM has arrived since the last call, without waiting.
    // Takes the arrived signals, so none is left to act once unblocked.
    bool take();

private:
    int fd_ = -1;
};
