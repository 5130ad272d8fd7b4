// NXAClient::build, getSources and createFile on the workspace
// /var/opt/velmora/work, with the platform installed into the sandbox's
// /opt/velmora and the real unzip, make, compilers and zip.
#include <gtest/gtest.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
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

std::string const kSrc = kSrcDir;
std::string const kScratchPath = std::string(kScratch) + "/";
std::string const kModuleZip = kScratchPath + "module.zip";
std::string const kBinArgument = std::string("BIN=") + kProgram;

// A module of a C and a C++ source and a header they share.
Files const kModuleSources = {
    {"greet.h",
     "#ifndef GREET_H\n#define GREET_H\n#ifdef __cplusplus\nextern \"C\" {\n#endif\n"
     "char const* greeting(void);\n#ifdef __cplusplus\n}\n#endif\n#endif\n"},
    {"greet.c", "#include \"greet.h\"\n\nchar const* greeting(void) { return \"hello from C\"; }\n"},
    {"main.cc",
     "#include <cstdio>\n\n#include \"greet.h\"\n\n"
     "int main() {\n    std::printf(\"%s and C++\\n\", greeting());\n    return 0;\n}\n"},
};

std::string const kProgramOutput = "hello from C and C++\n";

class PackageCreation : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        resetSandbox();
        startDir = currentDir();
        installPlatform();
    }
    void TearDown() override { ASSERT_EQ(chdir(startDir.c_str()), 0); }

    // Runs a build of `src` and returns what it threw ("nothing" on success).
    std::string build(std::string const& src, std::string& log, bool force = false, unsigned debug = 0) {
        auto client = makeClient(debug);
        return thrown([&] { client->build(src, log, force); });
    }

    // Creates the workspace's source directory holding `files`.
    void makeSourceDir(Files const& files) {
        ASSERT_EQ(nxatest::shell("mkdir -p " + kSrc).status, 0);
        for (auto const& [name, content] : files) nxatest::writeFile(kSrc + "/" + name, content);
    }

    std::string startDir;
};

std::string const kUnzipHeader = "\n\nunzip log:\n";
std::string const kMakeHeader = "\n\nmake log:\n";

}  // namespace

// ---- build -----------------------------------------------------------------

TEST_F(PackageCreation, BuildTurnsCAndCxxSourcesIntoTheDevelopmentPackage) {
    makeSourceArchive(kModuleZip, kModuleSources);
    std::string log;
    ASSERT_EQ(build(kModuleZip, log), "nothing") << log;

    EXPECT_EQ(nxatest::shell(kProgram).output, kProgramOutput);
    std::vector<std::string> const entries = zipEntries(kPackage);
    EXPECT_NE(std::find(entries.begin(), entries.end(), "nxadevel/nxadevel"), entries.end());
    EXPECT_NE(std::find(entries.begin(), entries.end(), "nxadevel/Manifest"), entries.end());
    EXPECT_EQ(nxatest::readFile(std::string(kOutDir) + "/Manifest"),
              "# Development package created by vllib 11.1.0.4\nname\t\t=\tnxadevel\n"
              "version\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\t" +
                  getMachine() + "\n");
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(PackageCreation, BuildLogHoldsUnzipThenMakeUnderTheirHeaders) {
    makeSourceArchive(kModuleZip, kModuleSources);
    std::string log = "kept\n";
    ASSERT_EQ(build(kModuleZip, log), "nothing") << log;
    std::string const unzipPart = "kept\n" + kUnzipHeader + "Archive:  " + kModuleZip + "\n";
    EXPECT_EQ(log.substr(0, unzipPart.size()), unzipPart);
    std::size_t const make = log.find(kMakeHeader);
    ASSERT_NE(make, std::string::npos) << log;
    EXPECT_NE(log.substr(0, make).find("  inflating: main.cc"), std::string::npos) << log;
    EXPECT_NE(log.find("-o main.cc.o main.cc\n", make), std::string::npos) << log;
    EXPECT_NE(log.find("-o /var/opt/velmora/work/nxadevel/nxadevel greet.c.o main.cc.o", make),
              std::string::npos)
        << log;
}

TEST_F(PackageCreation, BuildWritesTheUnzipAndMakeCallsAsItsOnlyTraceLines) {
    makeSourceArchive(kModuleZip, kModuleSources);
    auto client = makeClient(0);
    nxatest::Capture out(1);
    std::string log;
    client->build(kModuleZip, log, false);
    EXPECT_EQ(out.release(), "[INFO] NXAClient::build() call: unzip -o " + kModuleZip + "\n" +
                                 "[INFO] NXAClient::make() call: " +
                                 expectedMakeCommand(jobsForThisMachine() + " " + kBinArgument) + "\n");
}

TEST_F(PackageCreation, ForcedBuildDiffersOnlyByItsTraceLine) {
    makeSourceArchive(kModuleZip, kModuleSources);
    auto client = makeClient(0);
    std::string plainTrace, forcedTrace, plainLog, forcedLog;
    {
        nxatest::Capture out(1);
        client->build(kModuleZip, plainLog, false);
        plainTrace = out.release();
    }
    std::string const plainFiles = nxatest::shell("cd /var/opt/velmora/work && find . | sort").output;
    std::string const plainManifest = nxatest::readFile(std::string(kOutDir) + "/Manifest");
    {
        nxatest::Capture out(1);
        client->build(kModuleZip, forcedLog, true);
        forcedTrace = out.release();
    }
    std::string const unzipLine = "[INFO] NXAClient::build() call: unzip -o " + kModuleZip + "\n";
    ASSERT_EQ(plainTrace.rfind(unzipLine, 0), 0u) << plainTrace;
    EXPECT_EQ(forcedTrace,
              unzipLine + "[INFO] NXAClient::build() forced build\n" + plainTrace.substr(unzipLine.size()));
    EXPECT_EQ(forcedLog, plainLog);
    EXPECT_EQ(nxatest::shell("cd /var/opt/velmora/work && find . | sort").output, plainFiles);
    EXPECT_EQ(nxatest::readFile(std::string(kOutDir) + "/Manifest"), plainManifest);
    EXPECT_EQ(nxatest::shell(kProgram).output, kProgramOutput);
}

TEST_F(PackageCreation, SourceDirDebugLineNeedsALevelAboveOne) {
    makeSourceArchive(kModuleZip, kModuleSources);
    std::string const srcdirLine = "[DEBUG] NXAClient::build() srcdir=" + kSrc;
    std::string log;
    {
        auto client = makeClient(2);
        nxatest::Capture out(1);
        client->build(kModuleZip, log, false);
        std::string const text = out.release();
        EXPECT_EQ(text.rfind(srcdirLine + "\n", 0), 0u) << text;
    }
    {
        auto client = makeClient(1);
        nxatest::Capture out(1);
        client->build(kModuleZip, log, false);
        std::string const text = out.release();
        EXPECT_EQ(text.find(srcdirLine), std::string::npos) << text;
        EXPECT_NE(text.find("[DEBUG] NXAClient::make() getCmdCallOutput: ret=0 "), std::string::npos);
    }
}

TEST_F(PackageCreation, EveryBuildStartsFromEmptyDirectories) {
    makeSourceArchive(kModuleZip, kModuleSources);
    // A stale source that would not compile, a stale product, and a link.
    makeSourceDir({{"stale.c", "this is not C\n"}});
    ASSERT_EQ(nxatest::shell(std::string("mkdir -p ") + kOutDir + " && touch " + kOutDir + "/stale").status,
              0);
    makeClient()->createFile("Makefile");
    std::string log;
    ASSERT_EQ(build(kModuleZip, log), "nothing") << log;
    EXPECT_FALSE(exists(kSrc + "/stale.c"));
    EXPECT_FALSE(exists(kSrc + "/Makefile"));
    EXPECT_FALSE(exists(std::string(kOutDir) + "/stale"));
}

// unzip writes its complaints to standard error, which its command line does
// not join to the output: they reach the host's standard error, and the log
// gets what unzip writes to standard output.
TEST_F(PackageCreation, ASourceArchiveThatDoesNotExistLetsMakeFailCleanly) {
    std::string log;
    nxatest::Capture err(2);
    EXPECT_EQ(build(kScratchPath + "none.zip", log), "VLException: make error");
    EXPECT_NE(err.release().find("unzip:  cannot find or open /var/opt/velmora/scratch/none.zip"),
              std::string::npos);
    ASSERT_EQ(log.rfind(kUnzipHeader + kMakeHeader, 0), 0u) << log;
    EXPECT_NE(log.find("no module sources (*.c, *.cc) in " + kSrc), std::string::npos) << log;
    EXPECT_FALSE(exists(kPackage));
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(PackageCreation, ACorruptSourceArchiveLetsMakeFailCleanly) {
    nxatest::writeFile(kScratchPath + "corrupt.zip", "PK\x03\x04 this is no zip archive at all");
    std::string log;
    nxatest::Capture err(2);
    EXPECT_EQ(build(kScratchPath + "corrupt.zip", log), "VLException: make error");
    EXPECT_NE(err.release().find("End-of-central-directory signature not found"), std::string::npos);
    std::string const unzipPart = kUnzipHeader + "Archive:  " + kScratchPath + "corrupt.zip\n" + kMakeHeader;
    EXPECT_EQ(log.rfind(unzipPart, 0), 0u) << log;
    EXPECT_NE(log.find("no module sources (*.c, *.cc) in " + kSrc), std::string::npos) << log;
    EXPECT_FALSE(exists(kPackage));
}

TEST_F(PackageCreation, SourcesThatDoNotCompileGiveMakeErrorWithTheDiagnostics) {
    makeSourceArchive(kModuleZip, {{"main.cc", "int main( {\n"}});
    std::string log;
    EXPECT_EQ(build(kModuleZip, log), "VLException: make error");
    std::size_t const make = log.find(kMakeHeader);
    ASSERT_NE(make, std::string::npos) << log;
    EXPECT_NE(log.find("main.cc:1:", make), std::string::npos) << log;
    EXPECT_NE(log.find("error:", make), std::string::npos) << log;
    EXPECT_NE(log.find("make: *** [", make), std::string::npos) << log;
    EXPECT_FALSE(exists(kProgram));
    EXPECT_FALSE(exists(kPackage));
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(PackageCreation, AWarningTheCompilerKnowsStillFailsTheBuild) {
    makeSourceArchive(kModuleZip, {{"main.c", "int main(void) {\n    int unused;\n    return 0;\n}\n"}});
    std::string log;
    EXPECT_EQ(build(kModuleZip, log), "VLException: make error");
    EXPECT_NE(log.find("[-Werror=unused-variable]"), std::string::npos) << log;
    EXPECT_FALSE(exists(kPackage));
}

// ---- the workspace's failures ------------------------------------------------

TEST_F(PackageCreation, ASourceDirThatCannotBeCreatedIsReported) {
    ASSERT_EQ(nxatest::shell("mkdir -p /var/opt/velmora/work && touch " + kSrc).status, 0);
    std::string log;
    EXPECT_EQ(build(kModuleZip, log),
              "IOException(17): create src dir /var/opt/velmora/work/src: File exists");
    EXPECT_EQ(log, "");
    EXPECT_EQ(currentDir(), startDir);
}

TEST_F(PackageCreation, AnOutputDirThatCannotBeCreatedIsReported) {
    ASSERT_EQ(nxatest::shell(std::string("mkdir -p /var/opt/velmora/work && touch ") + kOutDir).status, 0);
    std::string log;
    EXPECT_EQ(build(kModuleZip, log),
              "IOException(17): create build dir /var/opt/velmora/work/nxadevel: File exists");
    EXPECT_EQ(currentDir(), startDir);
}

TEST_F(PackageCreation, ASourceDirThatCannotBeEmptiedIsReported) {
    // A mount point inside cannot be removed: EBUSY.
    ASSERT_EQ(nxatest::shell("mkdir -p " + kSrc + "/mnt && mount -t tmpfs nxa-busy " + kSrc + "/mnt").status,
              0);
    std::string log;
    EXPECT_EQ(build(kModuleZip, log),
              "IOException(16): remove old source files in /var/opt/velmora/work/src: "
              "Device or resource busy");
    EXPECT_EQ(currentDir(), startDir);
}

TEST_F(PackageCreation, AnOutputDirThatCannotBeEmptiedIsReportedWithTheSourceDir) {
    std::string const mnt = std::string(kOutDir) + "/mnt";
    ASSERT_EQ(nxatest::shell("mkdir -p " + mnt + " && mount -t tmpfs nxa-busy " + mnt).status, 0);
    std::string log;
    EXPECT_EQ(build(kModuleZip, log),
              "IOException(16): remove old source files in /var/opt/velmora/work/src: "
              "Device or resource busy");
    EXPECT_EQ(currentDir(), startDir);
}

TEST_F(PackageCreation, ASourceDirThatCannotBeEnteredIsReported) {
    // Readable and writable but not searchable, for a user without privileges.
    ASSERT_EQ(nxatest::shell("mkdir -p " + kSrc + " " + kOutDir +
                             " && chown -R 65534:65534 /var/opt/velmora/work && chmod 0600 " + kSrc)
                  .status,
              0);
    auto client = makeClient();
    std::string log;
    Outcome const outcome = runAs(65534, [&] { client->build(kModuleZip, log, false); });
    EXPECT_TRUE(outcome.threw);
    EXPECT_EQ(outcome.code, EACCES);
    EXPECT_EQ(outcome.what, "change dir to /var/opt/velmora/work/src: Permission denied");
    EXPECT_EQ(outcome.cwd, startDir);
}

// ---- what the shell makes of an unquoted source path ---------------------------

TEST_F(PackageCreation, ASourcePathWithABlankIsSplitByTheShell) {
    makeSourceArchive(kScratchPath + "a.zip", kModuleSources);
    std::string const outside = namesOutsideWorkspace();
    std::string log;
    nxatest::Capture err(2);
    // unzip reads .../a.zip and looks in it for a member named b.zip.
    EXPECT_EQ(build(kScratchPath + "a b.zip", log), "VLException: make error");
    EXPECT_NE(err.release().find("caution: filename not matched:  b.zip"), std::string::npos);
    EXPECT_EQ(log.rfind(kUnzipHeader + "Archive:  " + kScratchPath + "a.zip\n" + kMakeHeader, 0), 0u) << log;
    EXPECT_EQ(nxatest::shell("ls -A " + kSrc).output, "");
    EXPECT_EQ(namesOutsideWorkspace(), outside);
}

TEST_F(PackageCreation, ShellMetacharactersInTheSourcePathRunInTheSourceDir) {
    std::string const outside = namesOutsideWorkspace();
    std::string log;
    // The library hands the path to the shell unquoted: the second command runs,
    // in the source directory, where the build has put the process.
    EXPECT_EQ(build(kScratchPath + "none.zip;touch injected", log), "VLException: make error");
    EXPECT_TRUE(exists(kSrc + "/injected"));
    EXPECT_EQ(namesOutsideWorkspace(), outside);
}

// ---- getSources --------------------------------------------------------------

TEST_F(PackageCreation, GetSourcesZipsTheTopLevelSourcesOnly) {
    makeSourceDir({{"a.h", "a\n"},
                   {"b.hh", "b\n"},
                   {"c.c", "c\n"},
                   {"d.cc", "d\n"},
                   {"notes.txt", "n\n"},
                   {"c.c.o", "o\n"}});
    ASSERT_EQ(nxatest::shell("mkdir " + kSrc + "/sub && touch " + kSrc + "/sub/e.c").status, 0);
    auto client = makeClient();
    std::string log = "kept";
    nxatest::Capture out(1);
    client->getSources("/var/opt/velmora/scratch/sources.zip", log);
    EXPECT_EQ(
        out.release(),
        "[INFO] NXAClient::getSources() call: zip /var/opt/velmora/scratch/sources.zip *.h *.hh *.c *.cc\n");
    EXPECT_EQ(zipEntries("/var/opt/velmora/scratch/sources.zip"),
              (std::vector<std::string>{"a.h", "b.hh", "c.c", "d.cc"}));
    EXPECT_EQ(log.rfind("kept\n\nzip log:\n  adding: a.h", 0), 0u) << log;
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(PackageCreation, GetSourcesAfterABuildPacksTheModulesSources) {
    makeSourceArchive(kModuleZip, kModuleSources);
    auto client = makeClient();
    std::string log;
    client->build(kModuleZip, log, false);
    client->getSources("/var/opt/velmora/scratch/again.zip", log);
    EXPECT_EQ(zipEntries("/var/opt/velmora/scratch/again.zip"),
              (std::vector<std::string>{"greet.c", "greet.h", "main.cc"}));
}

TEST_F(PackageCreation, GetSourcesWithoutASourceDirIsReported) {
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->getSources("/var/opt/velmora/scratch/sources.zip", log); }),
              "IOException(2): no src dir /var/opt/velmora/work/src: No such file or directory");
    EXPECT_EQ(log, "");
    EXPECT_EQ(currentDir(), startDir);
}

TEST_F(PackageCreation, GetSourcesWithAFileForTheSourceDirIsReported) {
    ASSERT_EQ(nxatest::shell("mkdir -p /var/opt/velmora/work && touch " + kSrc).status, 0);
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->getSources("/var/opt/velmora/scratch/sources.zip", log); }),
              "IOException(20): no src dir /var/opt/velmora/work/src: Not a directory");
}

TEST_F(PackageCreation, GetSourcesOfASourceDirThatCannotBeEnteredIsReported) {
    ASSERT_EQ(nxatest::shell("mkdir -p " + kSrc +
                             " && chown -R 65534:65534 /var/opt/velmora/work && chmod 0600 " + kSrc)
                  .status,
              0);
    auto client = makeClient();
    std::string log;
    Outcome const outcome =
        runAs(65534, [&] { client->getSources("/var/opt/velmora/scratch/sources.zip", log); });
    EXPECT_EQ(outcome.code, EACCES);
    EXPECT_EQ(outcome.what, "change dir to /var/opt/velmora/work/src: Permission denied");
    EXPECT_EQ(outcome.cwd, startDir);
}

TEST_F(PackageCreation, GetSourcesWithNothingToZipIsNoError) {
    makeSourceDir({{"notes.txt", "n\n"}});
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->getSources("/var/opt/velmora/scratch/sources.zip", log); }), "nothing");
    EXPECT_NE(log.find("zip error: Nothing to do!"), std::string::npos) << log;
    EXPECT_FALSE(exists("/var/opt/velmora/scratch/sources.zip"));
}

TEST_F(PackageCreation, GetSourcesToARelativeDestWritesIntoTheSourceDir) {
    makeSourceDir({{"a.c", "a\n"}});
    auto client = makeClient();
    std::string log;
    client->getSources("relative.zip", log);
    EXPECT_EQ(zipEntries(kSrc + "/relative.zip"), (std::vector<std::string>{"a.c"}));
}

TEST_F(PackageCreation, GetSourcesToADestWithABlankIsSplitByTheShell) {
    makeSourceDir({{"a.c", "a\n"}});
    std::string const outside = namesOutsideWorkspace();
    auto client = makeClient();
    std::string log;
    // zip makes the archive "pack" (as pack.zip) and finds no file "one.zip".
    client->getSources("pack one.zip", log);
    EXPECT_EQ(zipEntries(kSrc + "/pack.zip"), (std::vector<std::string>{"a.c"}));
    EXPECT_NE(log.find("name not matched: one.zip"), std::string::npos) << log;
    EXPECT_EQ(namesOutsideWorkspace(), outside);
}

TEST_F(PackageCreation, ShellMetacharactersInTheDestRunInTheSourceDir) {
    makeSourceDir({{"a.c", "a\n"}});
    std::string const outside = namesOutsideWorkspace();
    auto client = makeClient();
    std::string log;
    // The shell runs "zip out.zip", which has no file to add, and then
    // "touch injected *.h *.hh *.c *.cc" in the source directory.
    client->getSources("out.zip;touch injected", log);
    EXPECT_NE(log.find("zip error: Nothing to do! (out.zip)"), std::string::npos) << log;
    EXPECT_FALSE(exists(kSrc + "/out.zip"));
    EXPECT_TRUE(exists(kSrc + "/injected"));
    EXPECT_EQ(namesOutsideWorkspace(), outside);
}

// ---- createFile --------------------------------------------------------------

TEST_F(PackageCreation, CreateFileLinksTheSharedDataFile) {
    makeSourceDir({});
    makeClient()->createFile("Makefile");
    EXPECT_EQ(linkTarget(kSrc + "/Makefile"), "/opt/velmora/share/nxa/Makefile");
    EXPECT_EQ(nxatest::readFile(kSrc + "/Makefile"), nxatest::readFile(kMakefile));
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(PackageCreation, CreateFileReplacesAFile) {
    makeSourceDir({{"Makefile", "a file of the module\n"}});
    makeClient()->createFile("Makefile");
    EXPECT_EQ(linkTarget(kSrc + "/Makefile"), "/opt/velmora/share/nxa/Makefile");
}

TEST_F(PackageCreation, CreateFileReplacesALink) {
    makeSourceDir({});
    ASSERT_EQ(symlink("/nowhere/at/all", (kSrc + "/Makefile").c_str()), 0);
    makeClient()->createFile("Makefile");
    EXPECT_EQ(linkTarget(kSrc + "/Makefile"), "/opt/velmora/share/nxa/Makefile");
}

TEST_F(PackageCreation, CreateFileOfANameTheDataDirLacksMakesTheLinkAnyway) {
    makeSourceDir({});
    EXPECT_EQ(thrown([&] { makeClient()->createFile("absent.h"); }), "nothing");
    EXPECT_EQ(linkTarget(kSrc + "/absent.h"), "/opt/velmora/share/nxa/absent.h");
}

TEST_F(PackageCreation, CreateFileBeforeAnyBuildCannotEnterTheSourceDir) {
    EXPECT_EQ(thrown([&] { makeClient()->createFile("Makefile"); }),
              "IOException(2): cannto chdir to /var/opt/velmora/work/src: No such file or directory");
    EXPECT_EQ(currentDir(), startDir);
}

TEST_F(PackageCreation, CreateFileOverADirectoryIsReported) {
    makeSourceDir({});
    ASSERT_EQ(nxatest::shell("mkdir " + kSrc + "/include").status, 0);
    EXPECT_EQ(thrown([&] { makeClient()->createFile("include"); }),
              "IOException(21): cannot remove old include: Is a directory");
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(PackageCreation, CreateFileWhoseLinkCannotBeMadeNamesTheLink) {
    makeSourceDir({});
    EXPECT_EQ(thrown([&] { makeClient()->createFile("missing/x.h"); }),
              "IOException(2): cannot create symlink to missing/x.h: No such file or directory");
}

TEST_F(PackageCreation, CreateFileTakesBlanksAndMetacharactersLiterally) {
    makeSourceDir({});
    std::string const outside = namesOutsideWorkspace();
    makeClient()->createFile("a b;touch injected");
    EXPECT_EQ(linkTarget(kSrc + "/a b;touch injected"), "/opt/velmora/share/nxa/a b;touch injected");
    EXPECT_FALSE(exists(kSrc + "/injected"));
    EXPECT_EQ(namesOutsideWorkspace(), outside);
}
