// The developer's round trip: a module's C and C++ sources zipped, built with
// nxabuild into the development package, packed with nxapack, installed and
// run by nxahost, its output read with nc.
#include <gtest/gtest.h>

#include <csignal>

#include "build_support.h"
#include "clients.h"
#include "host_process.h"
#include "packages.h"
#include "sandbox.h"
#include "shell.h"

namespace e2e {
namespace {

constexpr char kSourceArchive[] = "/var/opt/velmora/scratch/hello-src.zip";

// A program in C calling a function in C++, each file compiled with the
// shared Makefile's flags (-Werror among them).
buildtest::Files const kSources = {
    {"hello.c",
     "#include <stdio.h>\n"
     "#include <unistd.h>\n"
     "int greeting(void);\n"
     "int main(void) {\n"
     "    for (int i = 0;; ++i) {\n"
     "        printf(\"hello %d from C and C++ (%d)\\r\\n\", i, greeting());\n"
     "        fflush(stdout);\n"
     "        sleep(1);\n"
     "    }\n"
     "}\n"},
    {"greeting.cc",
     "#include <string>\n"
     "extern \"C\" int greeting() { return static_cast<int>(std::string(\"forty-two\").size()); }\n"},
};

TEST(DeveloperRoundTrip, SourcesBuiltPackedAndRunReachATcpClient) {
    NXA_REQUIRE_SANDBOX();
    buildtest::resetSandbox();
    buildtest::installPlatform();
    buildtest::makeSourceArchive(kSourceArchive, kSources);

    nxatest::ShellResult built = nxatest::shell(std::string(NXA_E2E_BUILD) + " build " + kSourceArchive);
    ASSERT_EQ(built.status, 0) << built.output;
    EXPECT_NE(built.output.find("development package: /tmp/nxadevel.zip\n"), std::string::npos)
        << built.output;

    nxatest::ShellResult packed = runPack("/var/opt/velmora/nxa.zip", {"/tmp/nxadevel.zip"});
    ASSERT_EQ(packed.status, 0) << packed.output;
    EXPECT_EQ(packed.output,
              "nxapack: module nxadevel from /tmp/nxadevel.zip\n"
              "nxapack: wrote /var/opt/velmora/nxa.zip with 1 module(s)\n");

    HostProcess host({"nxadevel"});
    ASSERT_TRUE(waitRunning(host, {{"nxadevel", 20100}})) << describe(host);
    EXPECT_EQ(listDir("/var/opt/velmora/nxa/nxadevel"), (std::vector<std::string>{"Manifest", "nxadevel"}));
    Background client(ncCommand(20100), true);
    EXPECT_TRUE(client.waitFor("starting module \"nxadevel\"")) << client.output();
    EXPECT_TRUE(client.waitFor("hello 1 from C and C++ (9)\r\n")) << client.output() << describe(host);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

}  // namespace
}  // namespace e2e
