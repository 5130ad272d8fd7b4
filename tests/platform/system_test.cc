// getTotalRam, getMachine and getCmdCallOutput.
#include "vlplatform/system.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "capture.h"
#include "interpose.h"

namespace {

// When not null, uname() reports this machine name.
char const* fakeMachine = nullptr;
// When not 0, uname() fails with this error number.
int failUnameWith = 0;

// Sets a fake machine name for the life of the object.
struct FakeMachine {
    explicit FakeMachine(char const* name) { fakeMachine = name; }
    ~FakeMachine() { fakeMachine = nullptr; }
};

}  // namespace

// Interposes the C library's uname for this test binary, so that every branch
// of getMachine() can be seen on one machine.
extern "C" int uname(struct utsname* names) {
    if (failUnameWith != 0) {
        errno = failUnameWith;
        return -1;
    }
    static auto real = nxatest::nextDefinition<int (*)(struct utsname*)>("uname");
    int rc = real(names);
    if (rc == 0 && fakeMachine) {
        std::strncpy(names->machine, fakeMachine, sizeof names->machine - 1);
        names->machine[sizeof names->machine - 1] = 0;
    }
    return rc;
}

TEST(GetTotalRam, EqualsSysinfoTotal) {
    struct sysinfo info;
    ASSERT_EQ(sysinfo(&info), 0);
    EXPECT_EQ(getTotalRam(), static_cast<unsigned long>(info.totalram) * info.mem_unit);
    EXPECT_GT(getTotalRam(), 0ul);
}

TEST(GetMachine, KeepsI686) {
    FakeMachine fake("i686");
    EXPECT_EQ(getMachine(), "i686");
}

TEST(GetMachine, KeepsI586) {
    FakeMachine fake("i586");
    EXPECT_EQ(getMachine(), "i586");
}

TEST(GetMachine, X86_64IsNoarch) {
    FakeMachine fake("x86_64");
    EXPECT_EQ(getMachine(), "noarch");
}

TEST(GetMachine, Armv7lIsNoarch) {
    FakeMachine fake("armv7l");
    EXPECT_EQ(getMachine(), "noarch");
}

TEST(GetMachine, OtherI386NamesAreNoarch) {
    FakeMachine fake("i386");
    EXPECT_EQ(getMachine(), "noarch");
}

TEST(GetMachine, ThisMachineGivesNameOrNoarch) {
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    std::string own = names.machine;
    EXPECT_EQ(getMachine(), own == "i586" || own == "i686" ? own : "noarch");
}

TEST(GetMachine, FailingUnameGivesNoarch) {
    failUnameWith = EFAULT;
    std::string machine = getMachine();
    failUnameWith = 0;
    EXPECT_EQ(machine, "noarch");
}

TEST(GetCmdCallOutput, AppendsStandardOutput) {
    std::string out = "before:";
    EXPECT_EQ(getCmdCallOutput("printf 'a\\nb'", out), 0);
    EXPECT_EQ(out, "before:a\nb");
    EXPECT_EQ(getCmdCallOutput("echo again", out), 0);
    EXPECT_EQ(out, "before:a\nbagain\n");
}

TEST(GetCmdCallOutput, KeepsBinaryBytes) {
    std::string out;
    EXPECT_EQ(getCmdCallOutput("printf 'x\\000\\377\\r\\n'", out), 0);
    EXPECT_EQ(out, std::string("x\0\xff\r\n", 5));
}

TEST(GetCmdCallOutput, CollectsLargeOutput) {
    std::string out;
    EXPECT_EQ(getCmdCallOutput("head -c 1000000 /dev/zero", out), 0);
    EXPECT_EQ(out, std::string(1000000, '\0'));
}

TEST(GetCmdCallOutput, ReturnsExitCodeInSecondByte) {
    std::string out;
    int status = getCmdCallOutput("echo partial; exit 3", out);
    EXPECT_EQ(status, 0x300);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(out, "partial\n");
}

TEST(GetCmdCallOutput, StandardErrorIsNotCapturedUnlessRedirected) {
    nxatest::Capture err(2);
    std::string out;
    EXPECT_EQ(getCmdCallOutput("echo to-err >&2; echo to-out", out), 0);
    EXPECT_EQ(out, "to-out\n");
    EXPECT_EQ(err.text(), "to-err\n");
    EXPECT_EQ(getCmdCallOutput("(echo both >&2) 2>&1", out), 0);
    EXPECT_EQ(out, "to-out\nboth\n");
    EXPECT_EQ(err.text(), "to-err\n");
}

TEST(GetCmdCallOutput, CommandKilledBySignal) {
    std::string out;
    int status = getCmdCallOutput("echo last; kill -9 $$", out);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_EQ(status & 0xff00, 0);
    EXPECT_EQ(out, "last\n");
}

TEST(GetCmdCallOutput, MissingProgramIsShellExit127) {
    std::string out;
    nxatest::Capture err(2);
    EXPECT_EQ(getCmdCallOutput("/no/such/program", out), 127 << 8);
    EXPECT_EQ(out, "");
}

TEST(GetCmdCallOutput, CommandThatCannotRunGivesMinusOneWithErrno) {
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    // No descriptor left for the pipe to the command.
    int lowest = dup(0);
    close(lowest);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowest);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    std::string out = "kept";
    errno = 0;
    int status = getCmdCallOutput("echo never", out);
    int err = errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(out, "kept");
}
