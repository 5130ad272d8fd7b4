// Counting the allocations a piece of code makes. A binary that links the
// nxa_alloc_counter library (alloc_counter.cmake) has operator new and delete
// of its own, on malloc and free, which count every operator new and new[]:
//
//     long const before = nxatest::allocations();
//     codeUnderTest();
//     EXPECT_EQ(nxatest::allocations() - before, 0);
#pragma once

namespace nxatest {

// The operator new and new[] calls the calling thread has made so far.
long allocations();

}  // namespace nxatest
