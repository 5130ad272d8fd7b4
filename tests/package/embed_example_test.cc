// The embedding example, examples/embed, as a device maker uses it: built
// against a fresh install of the project, once with its Makefile and
// pkg-config, once with its CMake project and find_package; the second build
// then hosts a module packed with nxapack, serves it to a TCP client who types
// into it, passes bus text on, and ends on SIGTERM with status 0 and no
// program left; a forked copy whose program cannot be started ends in the
// example's handler.
#include <gtest/gtest.h>

#include <csignal>
#include <optional>

#include "clients.h"
#include "host_process.h"
#include "installed_tree.h"
#include "line_patterns.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"

namespace pkgtest {
namespace {

using e2e::quoted;

// Prints a numbered line a second, and answers every line typed to it.
// (A background list reads /dev/null, so the reader is the foreground one.)
constexpr char kTicker[] =
    "(i=0; while :; do printf 'tick %d\\r\\n' $i; i=$((i + 1)); sleep 1; done) &\n"
    "while IFS= read -r line; do printf 'you typed %s\\r\\n' \"$line\"; done";

std::string exampleSource() {
    return nxatest::sourceDir() + "/examples/embed";
}

// Builds the example with its CMake project in <work>/cmake; its program, or
// "" (the test failed) when the build failed. CMake's pkg-config module is out
// of reach: the package must not need it.
std::string buildWithFindPackage(std::string const& prefix, std::string const& work) {
    std::string const flags = sanitizeFlags();
    nxatest::ShellResult const configured = configureConsumer(
        exampleSource(), work + "/cmake", prefix,
        "-DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=" +
            quoted(compiler()) + " -DCMAKE_CXX_FLAGS=" + quoted("-Wall -Wextra -Werror " + flags) +
            " -DCMAKE_EXE_LINKER_FLAGS=" + quoted(flags));
    EXPECT_EQ(configured.status, 0) << configured.output;
    if (configured.status != 0) return "";
    nxatest::ShellResult const built = nxatest::shell("cmake --build " + quoted(work + "/cmake"));
    EXPECT_EQ(built.status, 0) << built.output;
    return built.status == 0 ? work + "/cmake/embed" : "";
}

// A fresh install, and the example built against it with find_package.
struct Built {
    std::string prefix, work, binary;
};
Built installAndBuild() {
    Built built;
    built.prefix = freshDir("embed-prefix");
    installInto(built.prefix);
    built.work = freshDir("embed-work");
    if (!::testing::Test::HasFatalFailure()) built.binary = buildWithFindPackage(built.prefix, built.work);
    return built;
}

TEST(EmbedExample, BuiltBothWaysAgainstTheInstalledTreeServesAModuleUntilTerm) {
    NXA_REQUIRE_SANDBOX();
    std::string const prefix = freshDir("embed-prefix");
    ASSERT_NO_FATAL_FAILURE(installInto(prefix));
    std::string const work = freshDir("embed-work");
    std::string const flags = sanitizeFlags();

    // pkg-config, through the example's Makefile, run from a folder of its own.
    nxatest::ShellResult const made = nxatest::shell(
        "mkdir " + quoted(work + "/make") + " && PKG_CONFIG_PATH=" + quoted(libDir(prefix) + "/pkgconfig") +
        " make -C " + quoted(work + "/make") + " -f " + quoted(exampleSource() + "/Makefile") +
        " CXX=" + quoted(compiler()) + " CXXFLAGS=" + quoted("-O1 -Wall -Wextra -Werror " + flags) +
        " LDFLAGS=" + quoted(flags));
    ASSERT_EQ(made.status, 0) << made.output;
    std::string const madeBinary = work + "/make/embed";
    // The run path finds the installed libraries; without a module it shows its usage.
    nxatest::ShellResult const usage = nxatest::shell(quoted(madeBinary));
    EXPECT_EQ(usage.status, 2) << usage.output;
    EXPECT_EQ(usage.output, "usage: embed [--bus-name NAME] [--web ADDRESS:PORT] MODULE...\n");
    nxatest::ShellResult const linked = nxatest::shell("ldd " + quoted(madeBinary));
    for (std::string const library : {"libnxahost.so.0", "libnxaclient.so.0"}) {
        EXPECT_NE(linked.output.find(library + " => " + libDir(prefix) + "/" + library), std::string::npos)
            << linked.output;
    }

    std::string const binary = buildWithFindPackage(prefix, work);
    ASSERT_FALSE(binary.empty());

    e2e::installPackage({e2e::writeModule(work + "/modules", "ticker", "noarch", kTicker)});
    e2e::HostProcess host({"--bus-name", "EmbedTest", "ticker"}, {e2e::leakSuppressionsEnv()}, {}, binary);
    ASSERT_TRUE(host.waitForLine("embed: serving 1 module(s) as EmbedTest")) << e2e::describe(host);

    std::optional<e2e::Background> client;
    client.emplace(e2e::socatCommand(20100), true);
    EXPECT_TRUE(client->waitFor("starting module \"ticker\"")) << client->output() << e2e::describe(host);
    EXPECT_TRUE(client->waitFor("tick 1\r\n")) << client->output() << e2e::describe(host);
    // What the client types reaches the program, whose answer comes back.
    client->send("typed through the host\n");
    EXPECT_TRUE(client->waitFor("you typed typed through the host\r\n"))
        << client->output() << e2e::describe(host);
    // Kind-34 text to the host's bus name reaches the module's clients.
    e2e::publishSystem("EmbedTest", "tester", 34, "hello through the bus");
    EXPECT_TRUE(client->waitFor("hello through the bus")) << client->output() << e2e::describe(host);
    EXPECT_TRUE(client->waitFor("tick 3\r\n")) << client->output() << e2e::describe(host);
    EXPECT_TRUE(host.running()) << e2e::describe(host);

    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << e2e::describe(host);
    EXPECT_EQ(host.countLine("embed: stopped"), 1) << e2e::describe(host);
    EXPECT_EQ(host.err(), "");
    client.reset();
    EXPECT_TRUE(nxatest::waitUntil([] { return e2e::strayProcesses().empty(); })) << e2e::strayProcesses();
}

// The second module's child cannot become a session leader, so run() comes
// back by exception in that copy of the host: the copy ends at once with its
// line and status 1, and the host itself serves the first module on.
TEST(EmbedExample, ForkedCopyWhoseProgramCannotStartEndsThereAndTheHostServesOn) {
    NXA_REQUIRE_SANDBOX();
    Built const built = installAndBuild();
    ASSERT_FALSE(built.binary.empty());
    std::string const& work = built.work;
    std::string const& binary = built.binary;

    e2e::installPackage({e2e::writeModule(work + "/modules", "first", "noarch",
                                          "printf 'first ready\\r\\n'; exec sleep 1000"),
                         e2e::writeModule(work + "/modules", "second", "noarch",
                                          "printf 'second ready\\r\\n'; exec sleep 1000")});
    e2e::HostProcess host(
        {"first", "second"},
        {e2e::leakSuppressionsEnv(), "LD_PRELOAD=" + e2e::faultPreload(), "NXA_E2E_FAIL_SETSID=2"}, {},
        binary);
    ASSERT_TRUE(host.waitForLine("embed: serving 2 module(s) as NXAEmbed")) << e2e::describe(host);
    std::string const copysLine =
        "embed: module program not started: cannot set session leader: Operation not permitted\n";
    EXPECT_TRUE(nxatest::waitUntil([&] { return host.err() == copysLine; })) << e2e::describe(host);

    std::optional<e2e::Background> client;
    client.emplace(e2e::ncCommand(20100));
    EXPECT_TRUE(client->waitFor("first ready\r\n")) << client->output() << e2e::describe(host);
    // One host, which said everything once: the copy neither served nor stopped anything.
    EXPECT_EQ(e2e::liveProcessesRunning(binary), 1) << e2e::strayProcesses();
    EXPECT_EQ(host.countLine("embed: serving 2 module(s) as NXAEmbed"), 1) << e2e::describe(host);
    EXPECT_EQ(host.err(), copysLine);
    // The copy left the bus connection it shared with the host alone.
    e2e::publishSystem("NXAEmbed", "tester", 34, "still on the bus");
    EXPECT_TRUE(client->waitFor("still on the bus")) << client->output() << e2e::describe(host);

    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << e2e::describe(host);
    client.reset();
    EXPECT_TRUE(nxatest::waitUntil([] { return e2e::strayProcesses().empty(); })) << e2e::strayProcesses();
}

// The kit's parts in the example: a program that ends is started again with
// back-off, and the installed nxactl reads and restarts it through the
// example's controls.
TEST(EmbedExample, RestartsACrashingModuleAndAnswersNxactl) {
    NXA_REQUIRE_SANDBOX();
    Built const built = installAndBuild();
    ASSERT_FALSE(built.binary.empty());
    std::string const& prefix = built.prefix;
    std::string const& work = built.work;
    std::string const& binary = built.binary;

    e2e::installPackage(
        {e2e::writeModule(work + "/modules", "crash", "noarch", "printf 'up\\r\\n'; read line; exit 3"),
         e2e::writeModule(work + "/modules", "steady", "noarch", "printf 'steady\\r\\n'; exec sleep 1000")});
    e2e::HostProcess host({"crash", "steady"}, {e2e::leakSuppressionsEnv()}, {}, binary);
    ASSERT_TRUE(host.waitForLine("embed: serving 2 module(s) as NXAEmbed")) << e2e::describe(host);
    std::optional<e2e::Background> client;
    client.emplace(e2e::socatCommand(20100), true);
    ASSERT_TRUE(client->waitFor("up\r\n")) << client->output();
    client->send("end now\n");
    EXPECT_TRUE(client->waitFor("[embed] program ended: exit status 3; restart in 1 s\n"))
        << client->output() << e2e::describe(host);
    EXPECT_TRUE(nxatest::waitUntil([&] {
        return e2e::countMatchingLines(host.out(),
                                       "[INFO] embed: module program crash started again (pid #)") == 1;
    })) << e2e::describe(host);

    std::string const ctl = quoted(prefix + "/bin/nxactl") + " --bus-name NXAEmbed ";
    nxatest::ShellResult const status = nxatest::shell(ctl + "--json status");
    ASSERT_EQ(status.status, 0) << status.output;
    EXPECT_NE(status.output.find("\"last_end\": \"exit status 3\""), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("\"restarts\": 1"), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("\"name\": \"steady\""), std::string::npos) << status.output;
    nxatest::ShellResult const restart = nxatest::shell(ctl + "restart steady");
    EXPECT_EQ(restart.status, 0) << restart.output;
    EXPECT_EQ(restart.output, "restarted module steady\n");

    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << e2e::describe(host);
    client.reset();
    EXPECT_TRUE(nxatest::waitUntil([] { return e2e::strayProcesses().empty(); })) << e2e::strayProcesses();
}

}  // namespace
}  // namespace pkgtest
