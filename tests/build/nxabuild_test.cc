// nxabuild, run as a program: its usage errors, the words it refuses before
// the library is called, and real builds, source zips and links.
#include <gtest/gtest.h>

#include "build_support.h"
#include "sandbox.h"
#include "shell.h"

using namespace buildtest;

namespace {

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

// `word` quoted for the shell.
std::string quoted(std::string const& word) {
    std::string q = "'";
    for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs nxabuild with `args` in the directory `dir`.
ToolRun nxabuild(std::vector<std::string> const& args, std::string const& dir = "/var/opt/velmora/scratch") {
    std::string cmd = "cd " + dir + " && " + NXABUILD_PATH;
    for (std::string const& arg : args) cmd += " " + quoted(arg);
    nxatest::ShellResult r = nxatest::shell(
        cmd + " >/var/opt/velmora/scratch/nxabuild.out 2>/var/opt/velmora/scratch/nxabuild.err");
    return ToolRun{r.status, nxatest::readFile("/var/opt/velmora/scratch/nxabuild.out"),
                   nxatest::readFile("/var/opt/velmora/scratch/nxabuild.err")};
}

Files const kModuleSources = {
    {"part.c", "int part(void);\nint part(void) { return 7; }\n"},
    {"main.cc",
     "#include <cstdio>\n\nextern \"C\" int part(void);\n\n"
     "int main() {\n    std::printf(\"module %d\\n\", part());\n    return 0;\n}\n"},
};

bool endsWith(std::string const& text, std::string const& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class NxaBuild : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        resetSandbox();
    }
};

// ---- usage -----------------------------------------------------------------------

struct UsageCase {
    std::vector<std::string> args;
    std::string message;
};

class NxaBuildUsage : public NxaBuild, public ::testing::WithParamInterface<UsageCase> {};

}  // namespace

TEST_F(NxaBuild, HelpPrintsTheUsageAndSucceeds) {
    ToolRun r = nxabuild({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("usage: nxabuild [--work-dir DIR] [--debug N] build SRC.zip [--force]\n", 0), 0u)
        << r.out;
    EXPECT_EQ(r.err, "");
}

TEST_P(NxaBuildUsage, ExitsWithTwoAndTheUsage) {
    ToolRun r = nxabuild(GetParam().args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("nxabuild: " + GetParam().message + "\nusage: nxabuild ", 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(exists(kWork));
}

INSTANTIATE_TEST_SUITE_P(
    BadCommandLines, NxaBuildUsage,
    ::testing::Values(
        UsageCase{{}, "no command given"}, UsageCase{{"frobnicate", "x"}, "unknown command \"frobnicate\""},
        UsageCase{{"build"}, "build takes exactly one argument"},
        UsageCase{{"build", "/var/opt/velmora/scratch/a.zip", "/var/opt/velmora/scratch/b.zip"},
                  "build takes exactly one argument"},
        UsageCase{{"--debug", "two", "build", "/var/opt/velmora/scratch/a.zip"},
                  "--debug needs a number, not \"two\""},
        UsageCase{{"sources", "/var/opt/velmora/scratch/s.zip", "--force"}, "--force goes only with build"},
        UsageCase{{"--verbose", "build", "/var/opt/velmora/scratch/a.zip"}, "unknown option --verbose"},
        UsageCase{{"build", "/var/opt/velmora/scratch/a.zip", "--work-dir"}, "--work-dir needs a value"},
        UsageCase{{"link", "../../etc/x"},
                  "NAME \"../../etc/x\" must be a plain file name of the shared data directory"},
        UsageCase{{"link", ""}, "NAME is empty"}));

// ---- words the shell would split or interpret ---------------------------------------

namespace {

class NxaBuildRefuses : public NxaBuild, public ::testing::WithParamInterface<std::string> {
protected:
    // Runs nxabuild and checks that it refused `word` as `what` without a trace
    // of the library having run.
    void expectRefused(std::vector<std::string> const& args, std::string const& what,
                       std::string const& shown) {
        std::string const outside = namesOutsideWorkspace();
        ToolRun r = nxabuild(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err.rfind("nxabuild: " + what + " \"" + shown +
                                  "\" contains a blank or a character the shell would interpret; ",
                              0),
                  0u)
            << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_FALSE(exists(kWork));
        EXPECT_FALSE(exists("/var/opt/velmora/scratch/injected"));
        EXPECT_EQ(namesOutsideWorkspace(), outside);
    }
};

}  // namespace

TEST_P(NxaBuildRefuses, ASourceArchive) {
    expectRefused({"build", "/var/opt/velmora/scratch/" + GetParam()}, "SRC",
                  "/var/opt/velmora/scratch/" + GetParam());
}

TEST_P(NxaBuildRefuses, ADestination) {
    expectRefused({"sources", "/var/opt/velmora/scratch/" + GetParam()}, "DEST",
                  "/var/opt/velmora/scratch/" + GetParam());
}

TEST_P(NxaBuildRefuses, ALinkName) {
    expectRefused({"link", GetParam()}, "NAME", GetParam());
}

TEST_P(NxaBuildRefuses, AWorkDirectory) {
    expectRefused({"--work-dir", "/var/opt/velmora/scratch/" + GetParam(), "link", "Makefile"},
                  "work directory", "/var/opt/velmora/scratch/" + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Words, NxaBuildRefuses,
                         ::testing::Values("a b.zip", "a\tb.zip", "a\nb.zip", "x.zip;touch injected",
                                           "$(touch injected).zip", "`touch injected`.zip",
                                           "a|touch injected", "a&touch injected", "a>injected", "a<b.zip",
                                           "*.zip", "a?.zip", "[ab].zip", "a'b.zip", "a\"b.zip", "a\\b.zip",
                                           "~x.zip", "a#b.zip", "{a,b}.zip", "a=b!.zip", "(a).zip"));

TEST_F(NxaBuild, ARelativeSourceArchiveIsCheckedWithTheCurrentDirectory) {
    ASSERT_EQ(nxatest::shell("mkdir -p '/var/opt/velmora/scratch/with blank'").status, 0);
    ToolRun r = nxabuild({"build", "m.zip"}, "'/var/opt/velmora/scratch/with blank'");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("nxabuild: SRC \"/var/opt/velmora/scratch/with blank/m.zip\" contains a blank", 0),
              0u)
        << r.err;
}

// ---- running the library -----------------------------------------------------------

TEST_F(NxaBuild, ASuccessfulBuildPrintsTheLogAndWhereThePackageIs) {
    installPlatform();
    makeSourceArchive("/var/opt/velmora/scratch/m.zip", kModuleSources);
    ToolRun r = nxabuild({"build", "/var/opt/velmora/scratch/m.zip"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("[INFO] NXAClient::build() call: unzip -o /var/opt/velmora/scratch/m.zip\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\n\nunzip log:\nArchive:  /var/opt/velmora/scratch/m.zip\n"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\n\nmake log:\n"), std::string::npos) << r.out;
    EXPECT_TRUE(endsWith(r.out, "\ndevelopment package: /tmp/nxadevel.zip\n")) << r.out;
    EXPECT_TRUE(exists(kPackage));
    EXPECT_EQ(nxatest::shell(kProgram).output, "module 7\n");
}

TEST_F(NxaBuild, ARelativeSourceArchiveIsTakenFromTheCurrentDirectory) {
    installPlatform();
    makeSourceArchive("/var/opt/velmora/scratch/m.zip", kModuleSources);
    ToolRun r = nxabuild({"build", "m.zip"}, "/var/opt/velmora/scratch");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("call: unzip -o /var/opt/velmora/scratch/m.zip\n"), std::string::npos) << r.out;
}

TEST_F(NxaBuild, ForceAndDebugReachTheLibrary) {
    installPlatform();
    makeSourceArchive("/var/opt/velmora/scratch/m.zip", kModuleSources);
    ToolRun r = nxabuild({"--debug", "2", "build", "/var/opt/velmora/scratch/m.zip", "--force"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("[DEBUG] NXAClient::build() srcdir=/var/opt/velmora/work/src\n"), std::string::npos);
    EXPECT_NE(r.out.find("[INFO] NXAClient::build() forced build\n"), std::string::npos);
}

TEST_F(NxaBuild, TheWorkDirectoryOptionMovesTheWorkspace) {
    installPlatform();
    makeSourceArchive("/var/opt/velmora/scratch/m.zip", kModuleSources);
    ToolRun r = nxabuild(
        {"--work-dir", "/var/opt/velmora/scratch/workspace", "build", "/var/opt/velmora/scratch/m.zip"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(nxatest::shell("/var/opt/velmora/scratch/workspace/nxadevel/nxadevel").output, "module 7\n");
    EXPECT_FALSE(exists(kWork));
}

TEST_F(NxaBuild, AFailingBuildExitsWithOneAndTheExceptionText) {
    installPlatform();
    makeSourceArchive("/var/opt/velmora/scratch/m.zip", {{"main.cc", "int main( {\n"}});
    ToolRun r = nxabuild({"build", "/var/opt/velmora/scratch/m.zip"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "make error\n");
    EXPECT_NE(r.out.find("main.cc:1:"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("development package:"), std::string::npos) << r.out;
}

TEST_F(NxaBuild, AMissingSourceArchiveFailsAtMake) {
    installPlatform();
    ToolRun r = nxabuild({"build", "/var/opt/velmora/scratch/none.zip"});
    EXPECT_EQ(r.status, 1);
    // unzip's own complaint comes first, on the standard error it shares.
    EXPECT_TRUE(endsWith(r.err, "\nmake error\n")) << r.err;
    EXPECT_EQ(r.err.rfind("unzip:  cannot find or open /var/opt/velmora/scratch/none.zip", 0), 0u) << r.err;
    EXPECT_NE(r.out.find("no module sources"), std::string::npos) << r.out;
}

TEST_F(NxaBuild, SourcesZipsTheWorkspacesSources) {
    ASSERT_EQ(nxatest::shell("mkdir -p /var/opt/velmora/work/src && cd /var/opt/velmora/work/src && "
                             "touch a.c b.h notes.txt")
                  .status,
              0);
    ToolRun r = nxabuild({"sources", "s.zip"}, "/var/opt/velmora/scratch");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(endsWith(r.out, "\nsources: /var/opt/velmora/scratch/s.zip\n")) << r.out;
    EXPECT_EQ(zipEntries("/var/opt/velmora/scratch/s.zip"), (std::vector<std::string>{"a.c", "b.h"}));
}

TEST_F(NxaBuild, SourcesWithoutAWorkspaceFails) {
    ToolRun r = nxabuild({"sources", "/var/opt/velmora/scratch/s.zip"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "no src dir /var/opt/velmora/work/src: No such file or directory\n");
}

TEST_F(NxaBuild, LinkMakesTheLinkAndSaysSo) {
    ASSERT_EQ(nxatest::shell("mkdir -p /var/opt/velmora/work/src").status, 0);
    ToolRun r = nxabuild({"link", "Makefile"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(
        endsWith(r.out, "\nlinked /var/opt/velmora/work/src/Makefile -> /opt/velmora/share/nxa/Makefile\n"))
        << r.out;
    EXPECT_EQ(linkTarget("/var/opt/velmora/work/src/Makefile"), "/opt/velmora/share/nxa/Makefile");
}

TEST_F(NxaBuild, LinkBeforeAnyBuildFails) {
    ToolRun r = nxabuild({"link", "Makefile"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cannto chdir to /var/opt/velmora/work/src: No such file or directory\n");
}
