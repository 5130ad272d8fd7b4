// What Peers::push allocates: one shared chunk per push, whatever the number
// of peers, and nothing at all without peers. This binary counts every
// operator new (tests/support/alloc_counter.h).
#include <string>

#include "alloc_counter.h"
#include "module_fixture.h"

namespace {

class PeersAllocations : public peerstest::ModuleTest {
protected:
    // Allocations made by one push of `bytes`.
    long pushCounted(std::string const& bytes) {
        long const before = nxatest::allocations();
        push(bytes);
        return nxatest::allocations() - before;
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
