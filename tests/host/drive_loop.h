// A polling loop of the test's own for the kit's parts that are driven by
// addFds and serve (downloads).
#pragma once

#include <vlplatform/fd_set.h>

#include <chrono>
#include <functional>

namespace hosttest {

// Turns `part`'s loop (addFds, waitFds, serve) until `until` holds (true) or
// `limit` passes (false). Each wait lasts 100 ms at most.
template <class Part>
bool driveUntil(Part& part, std::function<bool()> const& until,
                std::chrono::seconds limit = std::chrono::seconds(20)) {
    auto const end = std::chrono::steady_clock::now() + limit;
    FdSet rd, wr;
    while (!until()) {
        if (std::chrono::steady_clock::now() > end) return false;
        rd.clear();
        wr.clear();
        int const timeout = part.addFds(rd, wr, 100);
        if (waitFds(rd, wr, timeout) < 0) return false;
        part.serve(rd, wr);
    }
    return true;
}

}  // namespace hosttest
