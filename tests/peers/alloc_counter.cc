// The process-wide operator new and delete of a test binary, counting each
// allocation. Kept in a file of their own so the compiler sees no caller.
#include "alloc_counter.h"

#include <cstdlib>
#include <new>

std::atomic<long> peerstest::allocations{0};

void* operator new(std::size_t size) {
    ++peerstest::allocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
