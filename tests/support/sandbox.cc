#include "sandbox.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "shell.h"

namespace nxatest {

namespace {

void broker(char const* verb) {
    char const* ctl = std::getenv("NXA_BROKER_CTL");
    ASSERT_NE(ctl, nullptr) << "no broker control: not inside nxa-sandbox";
    ShellResult r = shell(std::string(ctl) + " " + verb);
    ASSERT_EQ(r.status, 0) << "nxa-broker " << verb << ": " << r.output;
}

std::string envOr(char const* name, char const* fallback) {
    char const* v = std::getenv(name);
    return v ? v : fallback;
}

}  // namespace

bool inSandbox() {
    char const* v = std::getenv("NXA_SANDBOX");
    return v && std::string(v) == "1";
}

void brokerStart() {
    broker("start");
}
void brokerStop() {
    broker("stop");
}
void brokerKill() {
    broker("kill");
}

std::string sourceDir() {
    return envOr("NXA_SOURCE_DIR", NXA_DEFAULT_SOURCE_DIR);
}
std::string binaryDir() {
    return envOr("NXA_BINARY_DIR", NXA_DEFAULT_BINARY_DIR);
}

}  // namespace nxatest
