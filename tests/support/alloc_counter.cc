// The binary's own operator new and delete, on malloc and free, counting each
// allocation of the calling thread. Kept in a file of their own, apart from the
// code that allocates, so the compiler never pairs a call with these bodies.
#include "alloc_counter.h"

#include <cstdlib>
#include <new>

namespace {

// Per thread: a count read around some code is that code's alone, and costs no
// atomic operation in a benchmark's loop.
thread_local long made = 0;

}  // namespace

long nxatest::allocations() {
    return made;
}

void* operator new(std::size_t size) {
    ++made;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete[](void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
