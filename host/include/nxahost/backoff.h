// The delays between attempts at something that keeps failing: a program that
// ends, a download whose server is away.
#pragma once

#include <algorithm>
#include <chrono>

#include "clock.h"

namespace nxahost {

// 1 s before the first attempt again, doubled for each further one up to
// 60 s, plus up to 20 % at random so that many devices do not come back at
// once; reset() starts over from 1 s.
class Backoff {
public:
    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kLongestDelay{60};

    // The delay before the next attempt; the one after is twice as long.
    std::chrono::milliseconds next(Jitter& jitter) {
        std::chrono::milliseconds const base = base_;
        base_ = std::min<std::chrono::milliseconds>(base * 2, kLongestDelay);
        return base + jitter.upTo(base / 5);
    }
    // The next delay is the first one again.
    void reset() { base_ = kFirstDelay; }

private:
    std::chrono::milliseconds base_{kFirstDelay};
};

}  // namespace nxahost
