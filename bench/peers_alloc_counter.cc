// The process-wide operator new and delete of the benchmark, counting each
// allocation. Kept in a file of their own so the compiler sees no caller.
#include "peers_alloc_counter.h"

#include <cstdlib>
#include <new>

long allocations = 0;

void* operator new(std::size_t size) {
    ++allocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
