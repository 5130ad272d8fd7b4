// NXAClient::makePackage: the manifest written into the build output and the
// development package /tmp/nxadevel.zip, with the real zip helpers and unzip.
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/ini_parser.h>
#include <vlplatform/system.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "build_support.h"
#include "capture.h"
#include "sandbox.h"
#include "shell.h"

using namespace buildtest;

namespace {

std::string const kManifestPath = std::string(kOutDir) + "/Manifest";

// The manifest a development build writes on this machine.
std::string expectedManifest() {
    return "# Development package created by vllib 11.1.0.4\n"
           "name\t\t=\tnxadevel\n"
           "version\t\t=\t1.0\n"
           "minFWVersion\t=\t0.0\n"
           "architecture\t=\t" +
           getMachine() + "\n";
}

class MakePackage : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        resetSandbox();
        ASSERT_EQ(nxatest::shell(std::string("mkdir -p ") + kOutDir).status, 0);
        nxatest::writeFile(std::string(kOutDir) + "/nxadevel", "#!/bin/sh\necho built\n", 0755);
    }
};

}  // namespace

TEST_F(MakePackage, WritesTheManifestByteForByte) {
    auto client = makeClient();
    std::string log;
    client->makePackage(kOutDir, log);
    EXPECT_EQ(nxatest::readFile(kManifestPath), expectedManifest());
}

TEST_F(MakePackage, ArchitectureIsNoarchOnAMachineTheCheckDoesNotNameAsItself) {
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    std::string const machine = names.machine;
    if (machine == "i586" || machine == "i686") GTEST_SKIP() << "a machine the check names: " << machine;
    auto client = makeClient();
    std::string log;
    client->makePackage(kOutDir, log);
    std::string const manifest = nxatest::readFile(kManifestPath);
    std::string const last = "\narchitecture\t=\tnoarch\n";
    ASSERT_GT(manifest.size(), last.size());
    EXPECT_EQ(manifest.substr(manifest.size() - last.size()), last);
}

TEST_F(MakePackage, ManifestReadsBackAsTheRuntimeReadsIt) {
    auto client = makeClient();
    std::string log;
    client->makePackage(kOutDir, log);
    IniParser parser(kManifestPath, 0);
    EXPECT_EQ(parser.values().at(NXAClient::NXA_KEY_NAME), "nxadevel");
    EXPECT_EQ(parser.values().at(NXAClient::NXA_KEY_ARCH), getMachine());
    EXPECT_EQ(parser.values().size(), 4u);
}

TEST_F(MakePackage, ZipsTheDirectoryUnderItsOwnNameWithTheManifest) {
    auto client = makeClient();
    std::string log;
    client->makePackage(kOutDir, log);
    std::vector<std::string> const entries = zipEntries(kPackage);
    EXPECT_NE(std::find(entries.begin(), entries.end(), "nxadevel/Manifest"), entries.end());
    EXPECT_NE(std::find(entries.begin(), entries.end(), "nxadevel/nxadevel"), entries.end());
    for (std::string const& entry : entries) EXPECT_EQ(entry.rfind("nxadevel/", 0), 0u) << entry;
    nxatest::ShellResult r = nxatest::shell("unzip -p /tmp/nxadevel.zip nxadevel/Manifest");
    EXPECT_EQ(r.output, expectedManifest());
}

TEST_F(MakePackage, TruncatesAnOldManifest) {
    nxatest::writeFile(kManifestPath, std::string(500, 'x') + "\n");
    auto client = makeClient();
    std::string log;
    client->makePackage(kOutDir, log);
    EXPECT_EQ(nxatest::readFile(kManifestPath), expectedManifest());
}

TEST_F(MakePackage, ReplacesAnOldPackage) {
    ASSERT_EQ(nxatest::shell("mkdir -p /var/opt/velmora/scratch/old/other && echo x > "
                             "/var/opt/velmora/scratch/old/other/file && "
                             "cd /var/opt/velmora/scratch/old && zip -qr /tmp/nxadevel.zip other")
                  .status,
              0);
    auto client = makeClient();
    std::string log;
    client->makePackage(kOutDir, log);
    for (std::string const& entry : zipEntries(kPackage))
        EXPECT_EQ(entry.rfind("other", 0), std::string::npos) << entry;
}

TEST_F(MakePackage, LeavesTheLogAsItWas) {
    auto client = makeClient(2);
    std::string log = "unzip and make said this\n";
    client->makePackage(kOutDir, log);
    EXPECT_EQ(log, "unzip and make said this\n");
}

TEST_F(MakePackage, WritesNoTraceLine) {
    auto client = makeClient(0);
    nxatest::Capture out(1);
    std::string log;
    client->makePackage(kOutDir, log);
    EXPECT_EQ(out.release(), "");
}

TEST_F(MakePackage, ADirectoryThatDoesNotExistFailsOnlyAtTheZipStep) {
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->makePackage("/var/opt/velmora/none", log); }),
              "IOException(2): cannot zip /var/opt/velmora/none to /tmp/nxadevel.zip: "
              "No such file or directory");
    EXPECT_FALSE(exists("/var/opt/velmora/none"));
    EXPECT_FALSE(exists(kPackage));
}

TEST_F(MakePackage, AManifestThatCannotBeWrittenIsSkippedSilently) {
    // A directory where the manifest should go: the writes fail, unreported.
    ASSERT_EQ(nxatest::shell("mkdir " + kManifestPath).status, 0);
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->makePackage(kOutDir, log); }), "nothing");
    std::vector<std::string> const entries = zipEntries(kPackage);
    EXPECT_NE(std::find(entries.begin(), entries.end(), "nxadevel/nxadevel"), entries.end());
    EXPECT_EQ(nxatest::shell("ls -A " + kManifestPath).output, "");
}

TEST_F(MakePackage, AnArchiveThatCannotBeWrittenThrowsAndKeepsTheManifest) {
    ASSERT_EQ(nxatest::shell("mkdir /tmp/nxadevel.zip").status, 0);
    auto client = makeClient();
    std::string log;
    std::string const what = thrown([&] { client->makePackage(kOutDir, log); });
    EXPECT_EQ(what.rfind("IOException(", 0), 0u) << what;
    EXPECT_NE(what.find("): cannot zip /var/opt/velmora/work/nxadevel to /tmp/nxadevel.zip: "),
              std::string::npos)
        << what;
    EXPECT_EQ(nxatest::readFile(kManifestPath), expectedManifest());
}
