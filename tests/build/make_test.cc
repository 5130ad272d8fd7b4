// NXAClient::make with the real make, on stand-in Makefiles at the shared
// Makefile's place that show what make received.
#include <gtest/gtest.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>

#include <cerrno>
#include <cstdlib>

#include "build_support.h"
#include "capture.h"
#include "sandbox.h"
#include "shell.h"

using namespace buildtest;

namespace {

// Prints every build variable, BIN, FOO and the directory make runs in.
constexpr char kShowMakefile[] =
    "NXAVLLIBDIR = /assigned/in/the/makefile\n"
    "$(info NXAVLLIBDIR=[$(NXAVLLIBDIR)])\n"
    "$(info NXALIBSUBDIR=[$(NXALIBSUBDIR)])\n"
    "$(info NXADATADIR=[$(NXADATADIR)])\n"
    "$(info NXACPPFLAGS=[$(NXACPPFLAGS)])\n"
    "$(info NXACFLAGS=[$(NXACFLAGS)])\n"
    "$(info NXACXXFLAGS=[$(NXACXXFLAGS)])\n"
    "$(info NXALDFLAGS=[$(NXALDFLAGS)])\n"
    "$(info NXAMAKEFILE=[$(NXAMAKEFILE)])\n"
    "$(info CURDIR=[$(CURDIR)])\n"
    "all:\n"
    "\t@echo 'BIN=[$(BIN)] FOO=[$(FOO)]'\n";

// Says something, then fails: make exits with code 2.
constexpr char kFailingMakefile[] =
    "all:\n"
    "\t@echo compiling something\n"
    "\t@false\n";

// Prints only BIN, so the whole log is known.
constexpr char kQuietMakefile[] =
    "all:\n"
    "\t@echo 'BIN=[$(BIN)]'\n";

// The lines kShowMakefile prints for the fixed build variables.
std::string expectedVariables() {
    return "NXAVLLIBDIR=[/opt/velmora]\n"
           "NXALIBSUBDIR=[lib/x86_64-linux-gnu]\n"
           "NXADATADIR=[/opt/velmora/share/nxa]\n"
           "NXACPPFLAGS=[-Wdate-time -D_FORTIFY_SOURCE=2 -D_ATFILE_SOURCE -DBOOST_NO_SCOPED_ENUMS "
           "-DBOOST_NO_CXX11_SCOPED_ENUMS -DHAVE_CONFIG_H -I/opt/velmora/include -D__STDC_LIMIT_MACROS "
           "-D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS -D_POSIX_THREADS "
           "-D_POSIX_THREAD_SAFE_FUNCTIONS -D_REENTRANT -D_GLIBCXX_USE_NANOSLEEP]\n"
           "NXACFLAGS=[-g -O2 -fdebug-prefix-map=/build/vllib=. -fstack-protector-strong -Wformat "
           "-Werror=format-security -pipe  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror "
           "-Wformat-security -Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs "
           "-Wpointer-arith -Wundef -Wuninitialized]\n"
           "NXACXXFLAGS=[-g -O2 -fdebug-prefix-map=/build/vllib=. -fstack-protector-strong -Wformat "
           "-Werror=format-security -pipe -fno-implement-inlines  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall "
           "-Werror -Wformat-security -Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs "
           "-Wpointer-arith -Wundef -Wuninitialized -Wno-vla -Wchkp -Wclobbered "
           "-Wconditionally-supported -Wconversion-null -Wctor-dtor-privacy -Wdate-time "
           "-Wdisabled-optimization -Wdouble-promotion -Wduplicated-cond -Wempty-body "
           "-Wfloat-conversion -Wformat-signedness -Winvalid-pch -Wmissing-field-initializers "
           "-Wmissing-field-initializers -Wnoexcept -Wnon-virtual-dtor -Woverlength-strings "
           "-Wpedantic -Wplacement-new=2 -Wshift-negative-value -Wshift-overflow=2 "
           "-Wsized-deallocation -Wsizeof-array-argument -Wstrict-null-sentinel -Wsync-nand "
           "-Wtype-limits -Wuninitialized -Wunused -Wunused-parameter -Wuseless-cast "
           "-Wwrite-strings -Wzero-as-null-pointer-constant -Wcast-align -Wchkp -Wclobbered "
           "-Wconditionally-supported -Wconversion-null -Wctor-dtor-privacy -Wdangling-else "
           "-Wdate-time -Wdisabled-optimization -Wempty-body -Wexpansion-to-defined -Winvalid-pch "
           "-Wnoexcept -Wnoexcept-type -Wnon-virtual-dtor -Woverlength-strings -Wpointer-compare "
           "-Wrestrict -Wsizeof-array-argument -Wstrict-null-sentinel -Wstringop-overflow=4 "
           "-Wswitch-unreachable -Wsync-nand -Wunused -Wwrite-strings -Wno-format-overflow]\n"
           "NXALDFLAGS=[-Wl,-z,relro -L/opt/velmora/lib/x86_64-linux-gnu]\n"
           "NXAMAKEFILE=[/opt/velmora/share/nxa/Makefile]\n";
}

class Make : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        resetSandbox();
        startDir = currentDir();
        ASSERT_EQ(nxatest::shell(std::string("mkdir -p ") + kSrcDir).status, 0);
        ASSERT_EQ(chdir(kSrcDir), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir(startDir.c_str()), 0); }

    std::string startDir;
};

// The text between `begin` and the next `end` after it in `text`.
std::string between(std::string const& text, std::string const& begin, std::string const& end) {
    std::size_t from = text.find(begin);
    if (from == std::string::npos) return "<" + begin + " not found>";
    from += begin.size();
    std::size_t to = text.find(end, from);
    return to == std::string::npos ? "<" + end + " not found>" : text.substr(from, to - from);
}

}  // namespace

TEST_F(Make, PassesTheEightBuildVariablesInOrderWithTheirExactValues) {
    writeMakefile(kShowMakefile);
    auto client = makeClient();
    std::string log;
    client->make(log, {"BIN=/somewhere/prog"});
    EXPECT_EQ(log, expectedVariables() + "CURDIR=[" + kSrcDir + "]\nBIN=[/somewhere/prog] FOO=[]\n");
}

TEST_F(Make, WritesTheWholeCommandAsItsInfoLine) {
    writeMakefile(kQuietMakefile);
    auto client = makeClient();
    nxatest::Capture out(1);
    std::string log;
    client->make(log, {"-j", "2", "BIN=/somewhere/prog"});
    EXPECT_EQ(out.release(),
              "[INFO] NXAClient::make() call: " + expectedMakeCommand("-j 2 BIN=/somewhere/prog") + "\n");
}

TEST_F(Make, WithoutArgumentsTheFirstAssignmentFollowsTheMakefileAfterOneBlank) {
    writeMakefile(kQuietMakefile);
    auto client = makeClient();
    nxatest::Capture out(1);
    std::string log;
    client->make(log, {});
    std::string const text = out.release();
    EXPECT_EQ(text, "[INFO] NXAClient::make() call: " + expectedMakeCommand("") + "\n");
    EXPECT_NE(text.find("call: make -f /opt/velmora/share/nxa/Makefile NXAVLLIBDIR=\"/opt/velmora\" "),
              std::string::npos);
    EXPECT_EQ(log, "BIN=[]\n");
}

TEST_F(Make, AnArgumentWithABlankReachesMakeAsTwoWords) {
    writeMakefile(kShowMakefile);
    auto client = makeClient();
    std::string log;
    client->make(log, {"BIN=one FOO=two"});
    EXPECT_NE(log.find("\nBIN=[one] FOO=[two]\n"), std::string::npos) << log;
}

TEST_F(Make, BuildVariablesWinOverTheEnvironmentAndTheMakefile) {
    writeMakefile(kShowMakefile);
    ASSERT_EQ(setenv("NXACFLAGS", "-from-the-environment", 1), 0);
    ASSERT_EQ(setenv("NXADATADIR", "/from/the/environment", 1), 0);
    auto client = makeClient();
    std::string log;
    client->make(log, {"BIN=x"});
    unsetenv("NXACFLAGS");
    unsetenv("NXADATADIR");
    // The Makefile itself assigns NXAVLLIBDIR; the command line's value wins.
    EXPECT_EQ(log.substr(0, expectedVariables().size()), expectedVariables());
}

TEST_F(Make, RunsInTheCurrentDirectoryAndLeavesItThere) {
    writeMakefile(kShowMakefile);
    ASSERT_EQ(nxatest::shell("mkdir -p /var/opt/velmora/scratch/elsewhere").status, 0);
    ASSERT_EQ(chdir("/var/opt/velmora/scratch/elsewhere"), 0);
    auto client = makeClient();
    std::string log;
    client->make(log, {"BIN=x"});
    EXPECT_NE(log.find("\nCURDIR=[/var/opt/velmora/scratch/elsewhere]\n"), std::string::npos) << log;
    EXPECT_EQ(currentDir(), "/var/opt/velmora/scratch/elsewhere");
}

TEST_F(Make, AppendsToTheLogWithoutClearingIt) {
    writeMakefile(kQuietMakefile);
    auto client = makeClient();
    std::string log = "earlier text\n";
    client->make(log, {"BIN=x"});
    EXPECT_EQ(log, "earlier text\nBIN=[x]\n");
}

TEST_F(Make, ExitCodeTwoIsMakeErrorWithMakesMessagesInTheLog) {
    writeMakefile(kFailingMakefile);
    auto client = makeClient();
    std::string log = "before\n";
    EXPECT_EQ(thrown([&] { client->make(log, {"BIN=x"}); }), "VLException: make error");
    EXPECT_EQ(log,
              "before\ncompiling something\n"
              "make: *** [/opt/velmora/share/nxa/Makefile:3: all] Error 1\n");
}

TEST_F(Make, AMissingMakefileIsMakeError) {
    auto client = makeClient();
    std::string log;
    EXPECT_EQ(thrown([&] { client->make(log, {}); }), "VLException: make error");
    EXPECT_NE(log.find("make: /opt/velmora/share/nxa/Makefile: No such file or directory"), std::string::npos)
        << log;
}

TEST_F(Make, DebugLineQuotesStatusAndTheWholeLogAtLevelOne) {
    writeMakefile(kQuietMakefile);
    auto client = makeClient(1);
    nxatest::Capture out(1);
    std::string log = "from an earlier step\n";
    client->make(log, {"BIN=x"});
    std::string const text = out.release();
    std::string const head = "[DEBUG] NXAClient::make() getCmdCallOutput: ret=0 WEXITSTATUS=0 errno=";
    std::string const errnoText = between(text, head, " ");
    ASSERT_FALSE(errnoText.empty());
    EXPECT_EQ(errnoText.find_first_not_of("0123456789"), std::string::npos) << errnoText;
    std::string const rest = " _log.size()=" + std::to_string(log.size()) + " _log=\"" + log + "\"\n";
    EXPECT_EQ(text, "[INFO] NXAClient::make() call: " + expectedMakeCommand("BIN=x") + "\n" + head +
                        errnoText + rest);
}

TEST_F(Make, DebugLineOfAFailedMakeShowsItsExitCode) {
    writeMakefile(kFailingMakefile);
    auto client = makeClient(3);
    nxatest::Capture out(1);
    std::string log;
    EXPECT_EQ(thrown([&] { client->make(log, {"BIN=x"}); }), "VLException: make error");
    std::string const text = out.release();
    EXPECT_NE(text.find("[DEBUG] NXAClient::make() getCmdCallOutput: ret=512 WEXITSTATUS=2 errno="),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" _log.size()=" + std::to_string(log.size()) + " _log=\"" + log + "\"\n"),
              std::string::npos)
        << text;
}

TEST_F(Make, NoDebugLineAtLevelZero) {
    writeMakefile(kFailingMakefile);
    auto client = makeClient(0);
    nxatest::Capture out(1);
    std::string log;
    EXPECT_EQ(thrown([&] { client->make(log, {"BIN=x"}); }), "VLException: make error");
    EXPECT_EQ(out.release(), "[INFO] NXAClient::make() call: " + expectedMakeCommand("BIN=x") + "\n");
}
