// Counting the allocations a piece of code makes: a binary that links
// counting_new.cc sends every operator new through a counter.
#pragma once

#include <atomic>

namespace nxamodtest {

// While true, every operator new adds one to `allocations`.
extern std::atomic<bool> countAllocations;
extern std::atomic<long> allocations;

}  // namespace nxamodtest
