// What a test needs of the sandbox it runs in (tests/sandbox/nxa-sandbox).
#pragma once

#include <string>

namespace nxatest {

// Fails the calling test (fatally) unless it runs inside nxa-sandbox. Tests that
// touch the system's fixed paths or port 20010 call it first, so they can never
// touch the machine's own.
#define NXA_REQUIRE_SANDBOX() \
    ASSERT_TRUE(::nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox"

bool inSandbox();

// The sandbox's private broker (only with nxa-sandbox --broker). Each call
// returns once the broker is in the asked state; failures fail the test.
void brokerStart();
void brokerStop();
void brokerKill();

// The bus port the library uses.
constexpr unsigned short kBusPort = 20010;

// The source and build trees of the project, as ctest passes them.
std::string sourceDir();
std::string binaryDir();

}  // namespace nxatest
