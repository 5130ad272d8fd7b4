// Counts every operator new of the test process.
#pragma once

#include <atomic>

namespace peerstest {
// Number of operator new calls so far.
extern std::atomic<long> allocations;
}  // namespace peerstest
