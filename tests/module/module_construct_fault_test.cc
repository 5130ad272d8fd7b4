// Module construction that fails: no bus server at all, and the system calls
// of the socket and the terminal pair. A throwing constructor leaves what it
// opened so far open (and its bus client allocated): these tests show exactly that.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vlplatform/net.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "capture.h"
#include "interpose.h"
#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

// The bus client of a constructor that gives up on the bus is left allocated
// on purpose; the suppression file names that allocation and nothing else.
extern "C" char const* __lsan_default_options() {
    return "suppressions=" NXA_BUS_CLIENT_LEAK_SUPP;
}

namespace {

std::atomic<int> failSocket{0};            // errno for the next TCP socket()
std::atomic<int> failReuseAddr{0};         // errno for the next SO_REUSEADDR
std::atomic<int> failPtyPair{0};           // errno for the next openPtyPair()
std::atomic<bool> bindThrowsOther{false};  // the next bindSocket() throws a non-IOException
std::atomic<int> failListen{0};            // errno for the next listenConnection()

}  // namespace

extern "C" int socket(int domain, int type, int protocol) {
    static auto next = nxatest::nextDefinition<int (*)(int, int, int)>("socket");
    if (domain == AF_INET && type == SOCK_STREAM) {
        if (int err = failSocket.exchange(0)) {
            errno = err;
            return -1;
        }
    }
    return next(domain, type, protocol);
}

extern "C" int setsockopt(int fd, int level, int name, void const* value, socklen_t len) {
    static auto next = nxatest::nextDefinition<int (*)(int, int, int, void const*, socklen_t)>("setsockopt");
    if (level == SOL_SOCKET && name == SO_REUSEADDR) {
        if (int err = failReuseAddr.exchange(0)) {
            errno = err;
            return -1;
        }
    }
    return next(fd, level, name, value, len);
}

int openPtyPair(int& master, int& slave, int flags) {
    static auto next = nxatest::nextDefinition<int (*)(int&, int&, int)>("_Z11openPtyPairRiS_i");
    if (int err = failPtyPair.exchange(0)) {
        errno = err;
        return -1;
    }
    return next(master, slave, flags);
}

void bindSocket(int fd, sockaddr_in const& addr, socklen_t len) {
    static auto next = nxatest::nextDefinition<void (*)(int, sockaddr_in const&, socklen_t)>(
        "_Z10bindSocketiRK11sockaddr_inj");
    if (bindThrowsOther.exchange(false)) throw std::runtime_error("not an IOException");
    next(fd, addr, len);
}

void listenConnection(int fd, int backlog) {
    static auto next = nxatest::nextDefinition<void (*)(int, int)>("_Z16listenConnectionii");
    if (int err = failListen.exchange(0)) {
        errno = err;
        throw IOException(err, "cannot listen on socket");
    }
    next(fd, backlog);
}

namespace {

constexpr unsigned short kPort = 20100;
constexpr char kEstablished[] = "[INFO] NXAModule::Module() connection to VLPBus server established\n";
constexpr char kRetrying[] =
    "[WARNING] NXAModule::Module() connection to VLPBus server failed, retrying...\n";

int countOf(std::string const& text, std::string const& part) {
    int n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// A call of sleep() and the WARNING lines written before it.
struct Sleep {
    unsigned seconds;
    int warningsBefore;
};
// While set, every sleep() is noted in `sleeps`, with the lines in this capture.
nxatest::Capture* sleepWatch = nullptr;
std::vector<Sleep> sleeps;

}  // namespace

extern "C" unsigned int sleep(unsigned int seconds) {
    static auto next = nxatest::nextDefinition<unsigned int (*)(unsigned int)>("sleep");
    if (nxatest::Capture const* capture = sleepWatch)
        sleeps.push_back({seconds, countOf(capture->text(), kRetrying)});
    return next(seconds);
}

namespace {

class ModuleConstructionFailure : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
    }

    // Constructs module demo and expects it to throw `what`; returns the
    // construction's standard output. `opened` is how many descriptors it leaves.
    template <class Exception>
    std::string expectThrow(std::string const& what, int opened) {
        nxatest::Capture capture;
        int before = nxatest::openDescriptorCount();
        try {
            NXAClient::Module module("demo", kPort, proc);
            ADD_FAILURE() << "no exception";
        } catch (Exception const& e) {
            EXPECT_EQ(e.what(), what);
        }
        EXPECT_EQ(nxatest::openDescriptorCount(), before + opened);
        return capture.release();
    }

    Proc proc{::getpid()};
};

// "One second apart" is shown by what the constructor does between two
// warnings, a sleep of one second, not by the clock: a loaded machine may show
// a line late. The whole still takes ten seconds at least.
TEST_F(ModuleConstructionFailure, NoBusServerCostsTenWarningsOneSecondApartThenTheException) {
    nxatest::brokerStop();
    nxatest::Capture capture;
    sleeps.clear();
    int before = nxatest::openDescriptorCount();
    auto begin = std::chrono::steady_clock::now();
    sleepWatch = &capture;
    try {
        NXAClient::Module module("demo", kPort, proc);
        ADD_FAILURE() << "no exception";
    } catch (VLException const& e) {
        EXPECT_STREQ(e.what(), "[ERROR] Connection to VLPBus server failed");
    }
    sleepWatch = nullptr;
    auto elapsed = std::chrono::steady_clock::now() - begin;
    // The socket and the terminal pair stay open: deliberate.
    int after = nxatest::openDescriptorCount();
    std::string out = capture.release();

    std::string expected;
    for (int i = 0; i < 10; ++i) expected += kRetrying;
    EXPECT_EQ(out, expected);
    EXPECT_GE(elapsed, std::chrono::seconds(10));
    EXPECT_EQ(after, before + 3);
    // Each warning, and only a warning, is followed by a one-second sleep
    // before the next attempt.
    ASSERT_EQ(sleeps.size(), 10u);
    for (std::size_t i = 0; i < sleeps.size(); ++i) {
        EXPECT_EQ(sleeps[i].seconds, 1u) << "sleep " << i + 1;
        EXPECT_EQ(sleeps[i].warningsBefore, static_cast<int>(i) + 1) << "sleep " << i + 1;
    }
}

TEST_F(ModuleConstructionFailure, SocketThatCannotBeCreatedThrows) {
    failSocket = EMFILE;
    std::string out = expectThrow<IOException>(std::string("create socket: ") + std::strerror(EMFILE), 0);
    EXPECT_EQ(out, "");
}

TEST_F(ModuleConstructionFailure, SocketOptionThatCannotBeSetThrowsLeavingTheSocketOpen) {
    failReuseAddr = ENOPROTOOPT;
    std::string out =
        expectThrow<IOException>(std::string("cannot set SO_REUSEADDR: ") + std::strerror(ENOPROTOOPT), 1);
    EXPECT_EQ(out, "");
}

TEST_F(ModuleConstructionFailure, TerminalPairThatCannotBeOpenedThrowsLeavingTheSocketOpen) {
    failPtyPair = EAGAIN;
    NXAClient::debug = 2;
    std::string out =
        expectThrow<IOException>(std::string("cannot open PTY pair: ") + std::strerror(EAGAIN), 1);
    EXPECT_EQ(out,
              "[DEBUG] NXAModule::Module() name=demo\n"
              "[DEBUG] NXAModule::Module() serveraddr=0.0.0.0:20100\n");
    NXAClient::debug = 0;
}

// Bind and listen failures are reported and construction goes on.
TEST_F(ModuleConstructionFailure, ListenFailureIsReportedWithTheExceptionsTextAlone) {
    failListen = EADDRINUSE;
    nxatest::Capture capture;
    NXAClient::Module module("demo", kPort, proc);
    EXPECT_EQ(capture.release(),
              "[ERROR] NXAModule::Module() cannot listen on socket: Address already in use\n" +
                  std::string(kEstablished));
    EXPECT_GE(nxamodtest::Access::serverfd(module), 0);
}

TEST_F(ModuleConstructionFailure, OtherBindFailureIsReportedAsUnknownException) {
    bindThrowsOther = true;
    nxatest::Capture capture;
    NXAClient::Module module("demo", kPort, proc);
    EXPECT_EQ(capture.release(),
              "[ERROR] NXAModule::Module() unknown exception\n" + std::string(kEstablished));
    EXPECT_GE(nxamodtest::Access::serverfd(module), 0);
    EXPECT_TRUE(module.getBus()->isConnected());
}

}  // namespace
