// The build operations with getTotalRam and getCmdCallOutput replaced in this
// binary: the job count at the memory limit, commands that cannot be run, and
// wait statuses a real make does not readily give.
#include <gtest/gtest.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>

#include <cerrno>

#include "build_support.h"
#include "capture.h"
#include "interposed_platform.h"
#include "sandbox.h"
#include "shell.h"

using namespace buildtest;

namespace {

std::string const kSrc = kSrcDir;
std::string const kBinArgument = std::string("BIN=") + kProgram;

class Interposed : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        resetSandbox();
        interposed::reset();
        startDir = currentDir();
    }
    void TearDown() override {
        interposed::reset();
        ASSERT_EQ(chdir(startDir.c_str()), 0);
    }

    // Lets every command succeed at once, appending `output` to the log, and
    // records it; the make step then has nothing to build.
    static void commandsSucceed(std::string const& output = "") {
        interposed::command = [output](std::string const&, std::string& out) {
            out += output;
            return 0;
        };
    }

    // The make command a build with `totalRam` bytes of memory runs.
    std::string makeCommandWithMemory(unsigned long totalRam) {
        interposed::totalRam = totalRam;
        commandsSucceed();
        auto client = makeClient();
        std::string log;
        client->build("/var/opt/velmora/scratch/module.zip", log, false);
        EXPECT_EQ(interposed::commands.size(), 2u);
        return interposed::commands.empty() ? "" : interposed::commands.back();
    }

    std::string startDir;
};

}  // namespace

// ---- the job count -------------------------------------------------------------

TEST_F(Interposed, OneJobJustBelowTheJobLimit) {
    EXPECT_EQ(makeCommandWithMemory(536870911UL), expectedMakeCommand("-j 1 " + kBinArgument));
}

TEST_F(Interposed, TwoJobsAtTheJobLimit) {
    EXPECT_EQ(makeCommandWithMemory(536870912UL), expectedMakeCommand("-j 2 " + kBinArgument));
}

TEST_F(Interposed, StillTwoJobsWith64GiB) {
    EXPECT_EQ(makeCommandWithMemory(64UL << 30), expectedMakeCommand("-j 2 " + kBinArgument));
}

TEST_F(Interposed, TheConstructorReportsTheMemoryItWasGiven) {
    interposed::totalRam = 536870911UL;
    nxatest::Capture out(1);
    auto client = makeClient();
    EXPECT_EQ(out.release(), "[INFO] NXAClient::NXAClient() totalram=536870911 joblimit=536870912\n");
}

// ---- build ---------------------------------------------------------------------

TEST_F(Interposed, BuildRunsUnzipThenMakeWithTheirOutputUnderHeaders) {
    interposed::command = [](std::string const& cmd, std::string& out) {
        out += cmd.rfind("unzip", 0) == 0 ? "UNZIP SAID\n" : "MAKE SAID\n";
        return 0;
    };
    auto client = makeClient();
    std::string log = "before";
    client->build("/var/opt/velmora/scratch/module.zip", log, false);
    EXPECT_EQ(log, "before\n\nunzip log:\nUNZIP SAID\n\n\nmake log:\nMAKE SAID\n");
    ASSERT_EQ(interposed::commands.size(), 2u);
    EXPECT_EQ(interposed::commands[0], "unzip -o /var/opt/velmora/scratch/module.zip");
    EXPECT_TRUE(exists(kPackage));
}

TEST_F(Interposed, UnzipThatCannotBeRunIsReported) {
    interposed::command = [](std::string const&, std::string&) {
        errno = EMFILE;
        return -1;
    };
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->build("/var/opt/velmora/scratch/module.zip", log, true); }),
              "IOException(24): cannot unzip /var/opt/velmora/scratch/module.zip: Too many open files");
    EXPECT_EQ(log, "\n\nunzip log:\n");
    EXPECT_EQ(interposed::commands.size(), 1u);
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(Interposed, UnzipsExitCodeIsNotExamined) {
    interposed::command = [](std::string const& cmd, std::string&) {
        return cmd.rfind("unzip", 0) == 0 ? 9 << 8 : 0;
    };
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->build("/var/opt/velmora/scratch/module.zip", log, false); }), "nothing");
    EXPECT_EQ(interposed::commands.size(), 2u);
}

// ---- make ----------------------------------------------------------------------

TEST_F(Interposed, MakeThatCannotBeRunIsReportedWithErrno) {
    interposed::command = [](std::string const&, std::string&) {
        errno = EAGAIN;
        return -1;
    };
    auto client = makeClient(1);
    std::string log = "abc";
    nxatest::Capture out(1);
    EXPECT_EQ(thrown([&] { client->make(log, {}); }),
              "IOException(11): cannot call make: Resource temporarily unavailable");
    EXPECT_EQ(out.release(), "[INFO] NXAClient::make() call: " + expectedMakeCommand("") + "\n" +
                                 "[DEBUG] NXAClient::make() getCmdCallOutput: ret=-1 WEXITSTATUS=255 "
                                 "errno=11 _log.size()=3 _log=\"abc\"\n");
}

TEST_F(Interposed, MakeDebugLineGivesStatusExitCodeErrnoAndTheWholeLog) {
    interposed::command = [](std::string const&, std::string& out) {
        out += "make: *** No rule\n";
        errno = ENOENT;
        return 2 << 8;
    };
    auto client = makeClient(1);
    std::string log = "earlier\n";
    nxatest::Capture out(1);
    EXPECT_EQ(thrown([&] { client->make(log, {"-j", "1"}); }), "VLException: make error");
    EXPECT_EQ(out.release(), "[INFO] NXAClient::make() call: " + expectedMakeCommand("-j 1") + "\n" +
                                 "[DEBUG] NXAClient::make() getCmdCallOutput: ret=512 WEXITSTATUS=2 "
                                 "errno=2 _log.size()=26 _log=\"earlier\nmake: *** No rule\n\"\n");
    EXPECT_EQ(log, "earlier\nmake: *** No rule\n");
}

TEST_F(Interposed, MakeExitingWithOneIsMakeError) {
    interposed::command = [](std::string const&, std::string&) { return 1 << 8; };
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->make(log, {}); }), "VLException: make error");
}

TEST_F(Interposed, MakeKilledByASignalCountsAsSuccess) {
    // Only the exit-code byte is tested; a killed make has none.
    interposed::command = [](std::string const&, std::string&) { return 9; };
    auto client = makeClient(1);
    std::string log;
    nxatest::Capture out(1);
    EXPECT_EQ(thrown([&] { client->make(log, {}); }), "nothing");
    EXPECT_NE(out.release().find("getCmdCallOutput: ret=9 WEXITSTATUS=0 errno="), std::string::npos);
}

TEST_F(Interposed, MakeErrorOfABuildLeavesNoPackage) {
    interposed::command = [](std::string const& cmd, std::string&) {
        return cmd.rfind("make", 0) == 0 ? 2 << 8 : 0;
    };
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->build("/var/opt/velmora/scratch/module.zip", log, false); }),
              "VLException: make error");
    EXPECT_FALSE(exists(kPackage));
    EXPECT_EQ(currentDir(), kSrc);
}

// ---- getSources ----------------------------------------------------------------

TEST_F(Interposed, ZipThatCannotBeRunIsReported) {
    ASSERT_EQ(nxatest::shell("mkdir -p " + kSrc).status, 0);
    interposed::command = [](std::string const&, std::string&) {
        errno = ENOMEM;
        return -1;
    };
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->getSources("/var/opt/velmora/scratch/sources.zip", log); }),
              "IOException(12): cannot zip /var/opt/velmora/scratch/sources.zip: Cannot allocate memory");
    EXPECT_EQ(log, "\n\nzip log:\n");
    ASSERT_EQ(interposed::commands.size(), 1u);
    EXPECT_EQ(interposed::commands[0], "zip /var/opt/velmora/scratch/sources.zip *.h *.hh *.c *.cc");
    EXPECT_EQ(currentDir(), kSrc);
}

TEST_F(Interposed, ZipsExitCodeIsNotExamined) {
    ASSERT_EQ(nxatest::shell("mkdir -p " + kSrc).status, 0);
    interposed::command = [](std::string const&, std::string&) { return 12 << 8; };
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->getSources("/var/opt/velmora/scratch/sources.zip", log); }), "nothing");
}
