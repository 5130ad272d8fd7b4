// nxahost's command line: --help, and every refused option or value ending the
// host at once with a message on standard error and status 2. These cases never
// get as far as the package, the ports or the bus.
#include <gtest/gtest.h>

#include "host_process.h"
#include "sandbox.h"

namespace e2e {
namespace {

struct Refusal {
    std::vector<std::string> args;
    std::string message;  // the first line on standard error
};

void expectRefused(Refusal const& r) {
    HostProcess host(r.args);
    ASSERT_EQ(host.waitExit(), 2);
    EXPECT_EQ(host.err(), "nxahost: " + r.message + "\nTry 'nxahost --help' for more information.\n");
    EXPECT_EQ(host.out(), "");
}

TEST(HostOptions, HelpDescribesEveryOptionWithItsDefaultAndExitsZero) {
    NXA_REQUIRE_SANDBOX();
    HostProcess host({"--help"});
    ASSERT_EQ(host.waitExit(), 0);
    std::string const help = host.out();
    EXPECT_EQ(help.rfind("usage: nxahost [OPTION]... MODULE...\n", 0), 0u) << help;
    for (char const* text : {"--package-dir DIR",
                             "(default /var/opt/velmora)",
                             "--modules-dir DIR",
                             "(default /var/opt/velmora/nxa;",
                             "--work-dir DIR",
                             "(default /var/opt/velmora/work)",
                             "--port N",
                             "(default 20100)",
                             "--max-modules N",
                             "(default 16)",
                             "--debug N",
                             "(default 0)",
                             "--bus-name NAME",
                             "(default NXAHost)",
                             "--restart WHEN",
                             "(default on-failure)",
                             "--client-timeout S",
                             "(default 60)",
                             "--fleet",
                             "--ca-file FILE",
                             "--help",
                             "INT and TERM stop the modules and exit 0",
                             "USR1 prints the run log",
                             "HUP checks the\npackage and the broker",
                             "127.0.0.1:20010"}) {
        EXPECT_NE(help.find(text), std::string::npos) << "missing: " << text << "\n" << help;
    }
    EXPECT_EQ(host.err(), "");
}

TEST(HostOptions, HelpWinsOverModuleNames) {
    NXA_REQUIRE_SANDBOX();
    HostProcess host({"--port", "20300", "--help", "clock"});
    ASSERT_EQ(host.waitExit(), 0);
    EXPECT_EQ(host.out().rfind("usage: nxahost", 0), 0u);
}

TEST(HostOptions, UnknownLongOptionIsRefused) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"--bogus", "clock"}, "unknown option '--bogus'"});
}

TEST(HostOptions, UnknownShortOptionIsNamedByItsLetter) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"-x", "clock"}, "unknown option '-x'"});
    expectRefused({{"-xy", "clock"}, "unknown option '-x'"});
}

TEST(HostOptions, HelpTakesNoValue) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"--help=3"}, "option '--help' takes no value"});
}

TEST(HostOptions, OptionWithoutItsValueIsRefused) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"clock", "--port"}, "option '--port' needs a value"});
    expectRefused({{"clock", "--bus-name"}, "option '--bus-name' needs a value"});
}

TEST(HostOptions, PortOutsideOneTo65535OrNotANumberIsRefused) {
    NXA_REQUIRE_SANDBOX();
    for (std::string const value : {"0", "65536", "abc", "+5", " 5", "20100x", "-1", ""}) {
        expectRefused(
            {{"--port", value, "clock"}, "--port needs a number from 1 to 65535, not '" + value + "'"});
    }
}

TEST(HostOptions, MaxModulesAndDebugNeedWholeNumbers) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"--max-modules", "-1", "clock"}, "--max-modules needs a whole number, not '-1'"});
    expectRefused({{"--max-modules=two", "clock"}, "--max-modules needs a whole number, not 'two'"});
    expectRefused({{"--debug", "x", "clock"}, "--debug needs a whole number, not 'x'"});
    expectRefused({{"--debug", "99999999999", "clock"}, "--debug needs a whole number, not '99999999999'"});
}

TEST(HostOptions, NoModuleNamedIsRefused) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{}, "no module named"});
    expectRefused({{"--port", "20100"}, "no module named"});
}

TEST(HostOptions, EmptyBusNameIsRefused) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"--bus-name=", "clock"}, "--bus-name must not be empty"});
}

TEST(HostOptions, ACaFileIsOnlyTakenWithFleetAndMustBeReadable) {
    NXA_REQUIRE_SANDBOX();
    expectRefused({{"--ca-file", "/etc/hostname", "clock"}, "--ca-file is for --fleet's downloads"});
    expectRefused({{"--fleet", "--ca-file", "/nonexistent/ca.pem", "clock"},
                   "--ca-file: cannot read /nonexistent/ca.pem: No such file or directory"});
}

}  // namespace
}  // namespace e2e
