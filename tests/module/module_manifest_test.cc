// Module::scan and the architecture table: which manifests let a module run here.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/ini_parser.h>
#include <vlplatform/log_util.h>

#include <cerrno>
#include <cstring>

#include "capture.h"
#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using nxamodtest::writeManifest;

constexpr char kDir[] = "/var/opt/velmora/modules";
constexpr unsigned short kPort = 20100;

std::string manifest(std::string const& name, std::string const& arch) {
    return "# Development package created by vllib 11.1.0.4\nname\t\t=\t" + name +
           "\nversion\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\t" + arch + "\n";
}

std::string manifestPath(std::string const& name) {
    return std::string(kDir) + "/" + name + "/Manifest";
}

class ModuleManifest : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
        module = std::make_unique<NXAClient::Module>("foo", kPort, proc);
    }
    void TearDown() override {
        module.reset();
        NXAClient::debug = 0;
    }

    // scan() of module foo with a manifest of `content`, its standard output and
    // error captured.
    bool scanWith(std::string const& content, std::string const& machine) {
        writeManifest(kDir, "foo", content);
        nxatest::CaptureBoth capture;
        bool fits = module->scan(kDir, machine);
        out = capture.out.release();
        err = capture.err.release();
        return fits;
    }

    Proc proc{::getpid()};
    std::unique_ptr<NXAClient::Module> module;
    std::string out;
    std::string err;
};

TEST_F(ModuleManifest, ArchitectureTableHoldsExactlyI586AndI686) {
    std::map<std::string, std::set<std::string>> expected = {{"i586", {"i586", "i686"}}, {"i686", {"i686"}}};
    EXPECT_EQ(NXAClient::Module::archmap, expected);
}

TEST_F(ModuleManifest, NoarchRunsOnEveryMachineIncludingAnEmptyName) {
    for (char const* machine : {"i586", "i686", "x86_64", "aarch64", ""}) {
        EXPECT_TRUE(scanWith(manifest("foo", "noarch"), machine)) << machine;
        EXPECT_EQ(out, "");
        EXPECT_EQ(err, "");
    }
}

TEST_F(ModuleManifest, I586RunsOnI586AndI686Only) {
    EXPECT_TRUE(scanWith(manifest("foo", "i586"), "i586"));
    EXPECT_TRUE(scanWith(manifest("foo", "i586"), "i686"));
    EXPECT_FALSE(scanWith(manifest("foo", "i586"), "x86_64"));
    EXPECT_FALSE(scanWith(manifest("foo", "i586"), "i386"));
    EXPECT_EQ(out, "");
}

TEST_F(ModuleManifest, I686RunsOnlyOnI686) {
    EXPECT_TRUE(scanWith(manifest("foo", "i686"), "i686"));
    EXPECT_FALSE(scanWith(manifest("foo", "i686"), "i586"));
    EXPECT_FALSE(scanWith(manifest("foo", "i686"), "x86_64"));
    EXPECT_EQ(out, "");
}

TEST_F(ModuleManifest, X86_64IsRefusedSilentlyEvenOnX86_64) {
    EXPECT_FALSE(scanWith(manifest("foo", "x86_64"), "x86_64"));
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(ModuleManifest, ArchitectureOfOtherCaseIsRefusedSilently) {
    EXPECT_FALSE(scanWith(manifest("foo", "NOARCH"), "i686"));
    EXPECT_FALSE(scanWith(manifest("foo", "I686"), "i686"));
    EXPECT_FALSE(scanWith(manifest("foo", "i686"), "I686"));
    EXPECT_EQ(out, "");
}

TEST_F(ModuleManifest, NameOfOtherCaseIsRefusedSilently) {
    EXPECT_FALSE(scanWith(manifest("Foo", "noarch"), "i686"));
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(ModuleManifest, NameOfAnotherModuleIsRefusedSilently) {
    EXPECT_FALSE(scanWith(manifest("bar", "noarch"), "i686"));
    EXPECT_FALSE(scanWith(manifest("foobar", "noarch"), "i686"));
    EXPECT_FALSE(scanWith(manifest("fo", "noarch"), "i686"));
    EXPECT_EQ(out, "");
}

TEST_F(ModuleManifest, MissingArchitectureIsReportedWithoutThePath) {
    EXPECT_FALSE(scanWith("name\t\t=\tfoo\nversion\t\t=\t1.0\n", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot find architecture in manifest\n");
    EXPECT_EQ(err, "");
}

TEST_F(ModuleManifest, MissingNameIsReportedWithThePath) {
    EXPECT_FALSE(scanWith("architecture\t=\tnoarch\n", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot find name in " + manifestPath("foo") + "\n");
}

TEST_F(ModuleManifest, NeitherKeyReportsOnlyTheName) {
    EXPECT_FALSE(scanWith("# nothing here\nversion = 1.0\nminFWVersion = 0.0\n", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot find name in " + manifestPath("foo") + "\n");
}

TEST_F(ModuleManifest, EmptyManifestHasNoName) {
    EXPECT_FALSE(scanWith("", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot find name in " + manifestPath("foo") + "\n");
    EXPECT_EQ(err, "");
}

TEST_F(ModuleManifest, KeysInOtherCaseAreNotTheKeys) {
    EXPECT_FALSE(scanWith("NAME = foo\nARCHITECTURE = noarch\n", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot find name in " + manifestPath("foo") + "\n");
    EXPECT_FALSE(scanWith("name = foo\nArchitecture = noarch\n", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot find architecture in manifest\n");
}

TEST_F(ModuleManifest, VersionKeysAndCommentsHaveNoEffect) {
    EXPECT_TRUE(scanWith("# a comment\nname=foo\narchitecture=noarch\n", "i686"));
    EXPECT_TRUE(
        scanWith("version = anything at all\nname = foo\nminFWVersion = ?\narchitecture = i586\n", "i686"));
    EXPECT_EQ(out, "");
}

TEST_F(ModuleManifest, BinaryManifestIsAParseError) {
    std::string binary(
        "\x7f"
        "ELF\x02\x01\x01\0\0\0\xff\xfe\n\x01\x02",
        15);
    EXPECT_FALSE(scanWith(binary, "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot parse " + manifestPath("foo") + ": " +
                       manifestPath("foo") + ":1: missing '='\n");
    EXPECT_EQ(err, "");
}

TEST_F(ModuleManifest, LineWithoutKeyIsAParseError) {
    EXPECT_FALSE(scanWith("name = foo\n = noarch\n", "i686"));
    EXPECT_EQ(out, "[ERROR] NXAModule::scan() cannot parse " + manifestPath("foo") + ": " +
                       manifestPath("foo") + ":2: empty key\n");
}

TEST_F(ModuleManifest, HugeManifestIsRefusedOnStandardError) {
    std::string huge(IniParser::kMaxSize + 1, '#');
    EXPECT_FALSE(scanWith(huge, "i686"));
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "[ERROR] NXAModule::scan() cannot parse " + manifestPath("foo") + ": cannot read " +
                       manifestPath("foo") + ": " + std::strerror(EFBIG) + std::strerror(EFBIG) + "\n");
}

TEST_F(ModuleManifest, LargeManifestWithManyEntriesIsRead) {
    std::string large;
    for (int i = 0; i < 100000; ++i) large += "key" + std::to_string(i) + " = " + std::string(50, 'v') + "\n";
    EXPECT_TRUE(scanWith(large + manifest("foo", "noarch"), "i686"));
    EXPECT_EQ(out, "");
}

// A directory named Manifest exists, so the check goes on, but it cannot be
// read: the one report on standard error, completed by the system's error text.
TEST_F(ModuleManifest, UnreadableManifestIsReportedOnStandardError) {
    ASSERT_EQ(nxatest::shell(std::string("mkdir -p ") + manifestPath("foo")).status, 0);
    nxatest::CaptureBoth capture;
    EXPECT_FALSE(module->scan(kDir, "i686"));
    std::string out = capture.out.release();
    std::string err = capture.err.release();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "[ERROR] NXAModule::scan() cannot parse " + manifestPath("foo") + ": cannot read " +
                       manifestPath("foo") + ": Is a directoryIs a directory\n");
}

TEST_F(ModuleManifest, MissingManifestThrowsWithThePathAndWritesNothing) {
    nxatest::CaptureBoth capture;
    try {
        module->scan(kDir, "i686");
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), ENOENT);
        EXPECT_STREQ(e.what(), (manifestPath("foo") + ": No such file or directory").c_str());
    }
    EXPECT_EQ(capture.out.release(), "");
    EXPECT_EQ(capture.err.release(), "");
}

TEST_F(ModuleManifest, ManifestThatIsNotAFileStillCountsAsExisting) {
    writeManifest(kDir, "foo", "");
    ASSERT_EQ(::unlink(manifestPath("foo").c_str()), 0);
    ASSERT_EQ(::mkfifo(manifestPath("foo").c_str(), 0644), 0);
    nxatest::Capture capture;
    EXPECT_FALSE(module->scan(kDir, "i686"));
    EXPECT_EQ(capture.release(),
              "[ERROR] NXAModule::scan() cannot find name in " + manifestPath("foo") + "\n");
}

TEST_F(ModuleManifest, DebugLineAtLevelOneShowsNameArchitectureAndMachine) {
    NXAClient::debug = 1;
    EXPECT_TRUE(scanWith(manifest("foo", "i586"), "i686"));
    EXPECT_EQ(out, "[DEBUG] NXAModule::scan() name=foo arch=i586, _machinearch=i686\n");
    EXPECT_FALSE(scanWith(manifest("Foo", "x86_64"), ""));
    EXPECT_EQ(out, "[DEBUG] NXAModule::scan() name=Foo arch=x86_64, _machinearch=\n");
}

TEST_F(ModuleManifest, NoDebugLineAtLevelZero) {
    EXPECT_TRUE(scanWith(manifest("foo", "i586"), "i686"));
    EXPECT_EQ(out, "");
}

TEST(ModuleManifestNames, NameWithSlashReadsTheNestedManifest) {
    NXA_REQUIRE_SANDBOX();
    Proc proc(::getpid());
    NXAClient::Module module("sub/mod", kPort, proc);
    writeManifest(kDir, "sub/mod", manifest("sub/mod", "noarch"));
    EXPECT_TRUE(module.scan(kDir, "i686"));
    EXPECT_EQ(nxatest::readFile(std::string(kDir) + "/sub/mod/Manifest"), manifest("sub/mod", "noarch"));
}

TEST(ModuleManifestNames, EmptyNameReadsTheManifestOfTheDirectoryItself) {
    NXA_REQUIRE_SANDBOX();
    Proc proc(::getpid());
    NXAClient::Module module("", kPort, proc);
    ASSERT_EQ(nxatest::shell(std::string("mkdir -p ") + kDir).status, 0);
    nxatest::writeFile(std::string(kDir) + "/Manifest", manifest("", "noarch"));
    EXPECT_TRUE(module.scan(kDir, "i686"));
    ::unlink((std::string(kDir) + "/Manifest").c_str());
    try {
        module.scan(kDir, "i686");
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), (std::string(kDir) + "//Manifest: No such file or directory").c_str());
    }
}

}  // namespace
