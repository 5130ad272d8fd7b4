// What Peers::push allocates: one shared chunk per push, whatever the number
// of peers, and nothing at all without peers. This binary counts every
// operator new of the process.
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "module_fixture.h"

namespace {
std::atomic<long> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

class PeersAllocations : public peerstest::ModuleTest {
protected:
    // Allocations made by one push of `bytes`.
    long pushCounted(std::string const& bytes) {
        long before = allocations;
        push(bytes);
        return allocations - before;
    }
};

TEST_F(PeersAllocations, PushWithoutPeersAllocatesNothing) {
    peers().erase("client");
    EXPECT_EQ(pushCounted(std::string(512, 'x')), 0);
}

// The shared record (with its reference count) and its bytes, once for all.
TEST_F(PeersAllocations, PushAllocatesOneChunkForAllPeers) {
    peers().add("viewer");
    peers().add("watcher");
    EXPECT_EQ(pushCounted(std::string(512, 'x')), 2);
    for (int i = 0; i < 60; ++i) peers().add("viewer" + std::to_string(i));
    EXPECT_EQ(peers().size(), 63u);
    EXPECT_EQ(pushCounted(std::string(512, 'y')), 2);
}

TEST_F(PeersAllocations, ShortChunkFitsInTheSharedRecord) {
    peers().add("viewer");
    EXPECT_EQ(pushCounted("short"), 1);
}

}  // namespace
