// The module's program as a child: how it is started on the raw terminal, what
// it inherits, what a missing program gives, and how stop() ends it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vlplatform/fs.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "capture.h"
#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using nxamodtest::Access;
using nxamodtest::pollForRunLog;
using nxamodtest::programPath;
using nxamodtest::writeScript;

constexpr unsigned short kPort = 20100;

bool isOpen(int fd) {
    return fd >= 0 && ::fcntl(fd, F_GETFD) != -1;
}

std::string startingLine(std::string const& name, pid_t pid) {
    return "[INFO] NXAModule::exec() pid=" + std::to_string(pid) + ": starting module \"" + name +
           "\", childpid=" + std::to_string(pid) + "\n";
}

std::string ptsOf(int master) {
    char name[64];
    return ::ptsname_r(master, name, sizeof name) == 0 ? name : "?";
}

// Every file below the directories a module may write to, with its mode.
std::string writableTree() {
    return nxatest::shell("find /var/opt/velmora /opt/velmora /tmp -xdev -printf '%p %m\\n' | sort").output;
}

class ModuleChild : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
    }
    void TearDown() override {
        module.reset();
        NXAClient::debug = 0;
    }

    NXAClient::Module& make(std::string const& name = "demo") {
        module = std::make_unique<NXAClient::Module>(name, kPort, proc);
        return *module;
    }
    // Runs the module and collects its run log until it holds `text`.
    std::string runUntil(std::string const& text) {
        nxamodtest::runModule(*module);
        std::string log;
        EXPECT_TRUE(pollForRunLog(*module, log, text)) << "run log so far: " << log;
        return log;
    }
    pid_t child() const { return Access::childpid(*module); }

    Proc proc{::getpid()};
    std::unique_ptr<NXAClient::Module> module;
};

TEST_F(ModuleChild, FirstOutputIsTheStartingModuleLine) {
    writeScript("demo", "exec sleep 60");
    make();
    std::string log = runUntil("\n");
    ASSERT_GT(child(), 0);
    EXPECT_EQ(log, startingLine("demo", child()));
}

TEST_F(ModuleChild, MissingProgramReportsCannotExecToThePeersAndExitsWithOne) {
    make("ghost");
    int client = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return Access::peers(*module).size() == 2; }));

    EXPECT_NO_THROW(nxamodtest::runModule(*module));
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "directory\n")) << log;
    std::string expected = startingLine("ghost", child()) + "cannot exec \"" + programPath("ghost") +
                           "\": No such file or directory\n";
    EXPECT_EQ(log, expected);

    // The telnet client receives the same bytes.
    std::string received;
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] {
        char buf[1024];
        ssize_t n = ::recv(client, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) received.append(buf, static_cast<std::size_t>(n));
        return received.size() >= expected.size();
    }));
    EXPECT_EQ(received, expected);

    nxamodtest::ChildEnd end = nxamodtest::waitChildEnd(child());
    ASSERT_TRUE(end.ended);
    EXPECT_EQ(end.code, CLD_EXITED);
    EXPECT_EQ(end.status, 1);
    ::close(client);
}

TEST_F(ModuleChild, ProgramWithoutExecutePermissionIsGiven0744AndRuns) {
    writeScript("demo", "echo ran; exec sleep 60", 0600);
    make();
    std::string log = runUntil("ran\n");
    EXPECT_EQ(log, startingLine("demo", child()) + "ran\n");
    struct stat st;
    ASSERT_EQ(::stat(programPath("demo").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0744u);
}

TEST_F(ModuleChild, ProgramRunsInItsOwnSessionWithTheTerminalAsStandardDescriptorsAndControllingTty) {
    writeScript("demo",
                "echo \"sid=$(cut -d' ' -f6 /proc/$$/stat) pid=$$\"\n"
                "echo \"fds=$(readlink /proc/$$/fd/0) $(readlink /proc/$$/fd/1) $(readlink /proc/$$/fd/2)\"\n"
                "if (exec 3</dev/tty) 2>/dev/null; then echo ctty=yes; else echo ctty=no; fi\n"
                "exec sleep 60");
    make();
    std::string log = runUntil("ctty=yes\n");
    std::string pid = std::to_string(child());
    std::string pts = ptsOf(Access::master(*module));
    EXPECT_EQ(log, startingLine("demo", child()) + "sid=" + pid + " pid=" + pid + "\nfds=" + pts + " " + pts +
                       " " + pts + "\nctty=yes\n");
}

// The child closes only its extra copy of the slave: the master, the listening
// socket and the bus connection stay open in the program.
TEST_F(ModuleChild, ProgramKeepsTheMasterSocketAndBusButNoExtraSlave) {
    writeScript(
        "demo",
        "for f in /proc/$$/fd/*; do echo \"fd ${f##*/} $(readlink $f)\"; done; echo end; exec sleep 60");
    make();
    std::string log = runUntil("end\n");
    auto target = [&](int fd) {
        std::string key = "\nfd " + std::to_string(fd) + " ";
        std::size_t at = log.find(key);
        if (at == std::string::npos) return std::string("(closed)");
        at += key.size();
        return log.substr(at, log.find('\n', at) - at);
    };
    std::string pts = ptsOf(Access::master(*module));
    EXPECT_EQ(target(0), pts);
    EXPECT_EQ(target(1), pts);
    EXPECT_EQ(target(2), pts);
    EXPECT_EQ(target(Access::master(*module)).rfind("/dev/", 0), 0u) << log;
    EXPECT_NE(target(Access::master(*module)), pts) << log;
    EXPECT_EQ(target(Access::serverfd(*module)).rfind("socket:", 0), 0u) << log;
    EXPECT_EQ(target(module->getBus()->fd()).rfind("socket:", 0), 0u) << log;
    std::size_t copies = 0;
    for (std::size_t at = log.find(" " + pts + "\n"); at != std::string::npos;
         at = log.find(" " + pts + "\n", at + 1))
        ++copies;
    EXPECT_EQ(copies, 3u) << "only 0, 1 and 2 are the terminal: " << log;
}

TEST_F(ModuleChild, ProgramInheritsTheWorkingDirectoryAndEnvironmentWithItsPathAsOnlyArgument) {
    ASSERT_EQ(::setenv("NXA_MODULE_MARK", "42", 1), 0);
    ASSERT_EQ(mkdirPath("/tmp/nxa-module-cwd", 0755), 0);
    ASSERT_EQ(::chdir("/tmp/nxa-module-cwd"), 0);
    writeScript("demo", "echo \"pwd=$(pwd) mark=$NXA_MODULE_MARK arg0=$0 argc=$#\"; exec sleep 60");
    make();
    std::string log = runUntil("argc=0\n");
    EXPECT_EQ(log, startingLine("demo", child()) +
                       "pwd=/tmp/nxa-module-cwd mark=42 arg0=" + programPath("demo") + " argc=0\n");
}

TEST_F(ModuleChild, StopEndsTheChildClosesItsDescriptorsAndLeavesTheBus) {
    writeScript("demo", "exec sleep 60");
    make();
    runUntil("\n");
    pid_t pid = child();
    int serverfd = Access::serverfd(*module), master = Access::master(*module),
        slave = Access::slave(*module);
    module->stop();
    EXPECT_EQ(child(), -1);
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);  // ended and reaped
    EXPECT_FALSE(isOpen(serverfd));
    EXPECT_FALSE(isOpen(master));
    EXPECT_FALSE(isOpen(slave));
    // The fields keep their numbers.
    EXPECT_EQ(Access::serverfd(*module), serverfd);
    EXPECT_EQ(Access::master(*module), master);
    EXPECT_EQ(Access::slave(*module), slave);
    EXPECT_FALSE(module->getBus()->isConnected());
    module.reset();
}

TEST_F(ModuleChild, StopClosesTheTelnetPeers) {
    writeScript("demo", "exec sleep 60");
    make();
    int client = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return Access::peers(*module).size() == 2; }));
    module->stop();
    module.reset();
    char c;
    EXPECT_EQ(::recv(client, &c, 1, 0), 0);  // the module's side has closed
    ::close(client);
}

TEST_F(ModuleChild, StopOnAModuleNeverRunClosesItsThreeDescriptors) {
    make();
    int serverfd = Access::serverfd(*module), master = Access::master(*module),
        slave = Access::slave(*module);
    module->stop();
    EXPECT_FALSE(isOpen(serverfd));
    EXPECT_FALSE(isOpen(master));
    EXPECT_FALSE(isOpen(slave));
    EXPECT_EQ(child(), -1);
    module.reset();
}

TEST_F(ModuleChild, ProgramThatExitsIsCollectedByStop) {
    writeScript("demo", "exit 3");
    make();
    nxamodtest::runModule(*module);
    pid_t pid = child();
    nxamodtest::ChildEnd end = nxamodtest::waitChildEnd(pid);
    ASSERT_TRUE(end.ended);
    EXPECT_EQ(end.code, CLD_EXITED);
    EXPECT_EQ(end.status, 3);
    module->stop();
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    module.reset();
}

TEST_F(ModuleChild, DebugLinesOfRunStopAndDestructorAtLevelOne) {
    writeScript("demo", "exec sleep 60");
    make();
    std::string me = std::to_string(::getpid());
    NXAClient::debug = 1;
    nxatest::Capture capture;
    nxamodtest::runModule(*module);
    module->stop();
    module.reset();
    EXPECT_EQ(capture.release(), "[DEBUG] NXAModule::run() pid=" + me +
                                     " name=demo\n"
                                     "[DEBUG] NXAModule::run() pid=" +
                                     me +
                                     " done\n"
                                     "[DEBUG] NXAModule::stop() pid=" +
                                     me +
                                     "\n"
                                     "[DEBUG] NXAModule::stop() pid=-1 done\n"
                                     "[DEBUG] NXAModule::~Module() pid=-1 getpid=" +
                                     me +
                                     "\n"
                                     "[DEBUG] NXAModule::stop() pid=" +
                                     me +
                                     "\n"
                                     "[DEBUG] NXAModule::stop() pid=-1 done\n"
                                     "[DEBUG] NXAModule::~Module() pid=-1 getpid=" +
                                     me + " done\n");
}

TEST_F(ModuleChild, DestructorOfARunningModuleShowsTheChildThenStopsIt) {
    writeScript("demo", "exec sleep 60");
    make();
    std::string me = std::to_string(::getpid());
    nxamodtest::runModule(*module);
    pid_t pid = child();
    NXAClient::debug = 1;
    nxatest::Capture capture;
    module.reset();
    EXPECT_EQ(capture.release(), "[DEBUG] NXAModule::~Module() pid=" + std::to_string(pid) + " getpid=" + me +
                                     "\n"
                                     "[DEBUG] NXAModule::stop() pid=" +
                                     me +
                                     "\n"
                                     "[DEBUG] NXAModule::stop() pid=-1 done\n"
                                     "[DEBUG] NXAModule::~Module() pid=-1 getpid=" +
                                     me + " done\n");
    EXPECT_EQ(::kill(pid, 0), -1);
}

TEST_F(ModuleChild, NoDebugLinesAtLevelZero) {
    writeScript("demo", "exec sleep 60");
    make();
    nxatest::Capture capture;
    nxamodtest::runModule(*module);
    module->stop();
    module.reset();
    EXPECT_EQ(capture.release(), "");
}

TEST_F(ModuleChild, NameWithSlashRunsTheProgramOfTheNestedPath) {
    writeScript("sub/mod", "echo nested; exec sleep 60");
    EXPECT_EQ(programPath("sub/mod"), "/var/opt/velmora/nxa/sub/mod/sub/mod");
    make("sub/mod");
    std::string log = runUntil("nested\n");
    EXPECT_EQ(log, startingLine("sub/mod", child()) + "nested\n");
}

TEST_F(ModuleChild, EmptyNameTriesTheBaseDirectoryItself) {
    ASSERT_EQ(mkdirPath("/var/opt/velmora/nxa", 0755), 0);
    make("");
    std::string log = runUntil("denied\n");
    EXPECT_EQ(log, startingLine("", child()) + "cannot exec \"/var/opt/velmora/nxa//\": Permission denied\n");
    nxamodtest::ChildEnd end = nxamodtest::waitChildEnd(child());
    EXPECT_EQ(end.code, CLD_EXITED);
    EXPECT_EQ(end.status, 1);
}

// The only change a module makes to the file system is the mode of its program.
TEST_F(ModuleChild, NamesWithSlashOrEmptyWriteNothingElse) {
    writeScript("sub/mod", "echo nested; exec sleep 60", 0744);
    ASSERT_EQ(mkdirPath("/var/opt/velmora/nxa", 0744), 0);
    ::chmod("/var/opt/velmora/nxa", 0744);
    std::string before = writableTree();
    for (char const* name : {"sub/mod", "", "../../escape"}) {
        make(name);
        runUntil("\n");
        nxamodtest::waitChildEnd(child(), std::chrono::milliseconds(200));
        module.reset();
    }
    EXPECT_EQ(writableTree(), before);
}

}  // namespace
