// The binary's own operator new and delete, on malloc and free, counting
// allocations while asked to. Kept apart from the code that allocates, so the
// compiler never pairs a call with these bodies.
#include "counting_new.h"

#include <cstdlib>
#include <new>

namespace nxamodtest {

std::atomic<bool> countAllocations{false};
std::atomic<long> allocations{0};

}  // namespace nxamodtest

void* operator new(std::size_t size) {
    if (nxamodtest::countAllocations) ++nxamodtest::allocations;
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
