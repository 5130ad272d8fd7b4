// Socket helpers: addresses, bind, listen, accept, address printing.
#include "vlplatform/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "interpose.h"
#include "vlplatform/descriptors.h"
#include "vlplatform/exceptions.h"

namespace {

// Names this test binary lets the resolver look up: the local hosts file
// answers them, so no test ever sends a query to a name server.
bool resolvable(char const* node) {
    return node && std::strcmp(node, "localhost") == 0;
}

}  // namespace

// Interposes the resolver for this test binary: every name but "localhost" is
// unknown.
extern "C" int getaddrinfo(char const* node, char const* service, addrinfo const* hints, addrinfo** res) {
    if (!resolvable(node)) return EAI_NONAME;
    using Fn = int (*)(char const*, char const*, addrinfo const*, addrinfo**);
    static auto real = nxatest::nextDefinition<Fn>("getaddrinfo");
    return real(node, service, hints, res);
}

namespace {

// A TCP socket closed on destruction.
struct Socket {
    int fd;
    Socket() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    explicit Socket(int adopted) : fd(adopted) {}
    ~Socket() {
        if (fd >= 0) close(fd);
    }
};

std::string printed(sockaddr_in const& addr) {
    std::ostringstream os;
    os << addr;
    return os.str();
}

unsigned short boundPort(int fd) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    return ntohs(addr.sin_port);
}

// A socket listening on 127.0.0.1 at a port the system chose.
void listenOnLoopback(Socket const& server) {
    sockaddr_in addr;
    socklen_t len = setInetAddr("127.0.0.1", 0, addr);
    bindSocket(server.fd, addr, len);
    listenConnection(server.fd, 1);
}

int connectTo(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr;
    socklen_t len = setInetAddr("127.0.0.1", port, addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

TEST(SetInetAddr, NullHostMeansAnyAddress) {
    sockaddr_in addr;
    std::memset(&addr, 0xab, sizeof addr);
    EXPECT_EQ(setInetAddr(nullptr, 20100, addr), sizeof(sockaddr_in));
    EXPECT_EQ(addr.sin_family, AF_INET);
    EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(addr.sin_port, htons(20100));
    EXPECT_EQ(printed(addr), "0.0.0.0:20100");
}

TEST(SetInetAddr, DottedAddress) {
    sockaddr_in addr;
    EXPECT_EQ(setInetAddr("10.1.2.3", 8080, addr), sizeof(sockaddr_in));
    EXPECT_EQ(addr.sin_addr.s_addr, inet_addr("10.1.2.3"));
    EXPECT_EQ(printed(addr), "10.1.2.3:8080");
}

TEST(SetInetAddr, ResolvesName) {
    sockaddr_in addr;
    setInetAddr("localhost", 1, addr);
    EXPECT_EQ(printed(addr), "127.0.0.1:1");
}

TEST(SetInetAddr, UnknownNameThrows) {
    sockaddr_in addr;
    try {
        setInetAddr("no-such-host.invalid", 1, addr);
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), EINVAL);
        EXPECT_EQ(std::string(e.what()), std::string("cannot resolve no-such-host.invalid (") +
                                             gai_strerror(EAI_NONAME) + "): Invalid argument");
    }
}

TEST(SockaddrPrint, IgnoresStreamNumberFormat) {
    sockaddr_in addr;
    setInetAddr("192.168.0.254", 65535, addr);
    std::ostringstream os;
    os << std::hex << std::showbase << addr;
    EXPECT_EQ(os.str(), "192.168.0.254:65535");
}

TEST(Sockets, BindListenAndAcceptRealConnection) {
    Socket server;
    listenOnLoopback(server);
    unsigned short port = boundPort(server.fd);
    ASSERT_NE(port, 0);
    Socket client(connectTo(port));
    ASSERT_GE(client.fd, 0) << strerror(errno);

    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    Socket accepted(acceptClient(server.fd, reinterpret_cast<sockaddr*>(&peer), &len));
    ASSERT_GE(accepted.fd, 0) << strerror(errno);
    EXPECT_EQ(len, sizeof peer);
    EXPECT_EQ(printed(peer), "127.0.0.1:" + std::to_string(boundPort(client.fd)));

    ASSERT_EQ(write(client.fd, "\xff\r\0", 3), 3);
    char buf[8];
    ASSERT_EQ(read(accepted.fd, buf, sizeof buf), 3);
    EXPECT_EQ(std::string(buf, 3), std::string("\xff\r\0", 3));
    ASSERT_EQ(write(accepted.fd, "ok", 2), 2);
    ASSERT_EQ(read(client.fd, buf, sizeof buf), 2);
    EXPECT_EQ(std::string(buf, 2), "ok");
}

TEST(Sockets, AcceptedDescriptorIsCloseOnExec) {
    Socket server;
    listenOnLoopback(server);
    Socket client(connectTo(boundPort(server.fd)));
    ASSERT_GE(client.fd, 0);
    Socket accepted(acceptClient(server.fd, nullptr, nullptr));
    ASSERT_GE(accepted.fd, 0) << strerror(errno);
    int flags = fcntl(accepted.fd, F_GETFD);
    ASSERT_NE(flags, -1);
    EXPECT_TRUE(flags & FD_CLOEXEC);
}

TEST(Sockets, AcceptOnSocketNotListeningFails) {
    Socket plain;
    errno = 0;
    EXPECT_EQ(acceptClient(plain.fd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Sockets, BindToTakenPortThrowsAddressInUse) {
    Socket first;
    listenOnLoopback(first);
    unsigned short port = boundPort(first.fd);
    Socket second;
    sockaddr_in addr;
    socklen_t len = setInetAddr("127.0.0.1", port, addr);
    try {
        bindSocket(second.fd, addr, len);
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), EADDRINUSE);
        EXPECT_EQ(std::string(e.what()),
                  "cannot bind to 127.0.0.1:" + std::to_string(port) + ": Address already in use");
    }
}

TEST(Sockets, ListenOnNonSocketThrows) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    try {
        listenConnection(fds[0], 1);
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), ENOTSOCK);
        EXPECT_STREQ(e.what(), "cannot listen on socket: Socket operation on non-socket");
    }
    close(fds[0]);
    close(fds[1]);
}

TEST(Sockets, AcceptedConnectionIsNonBlocking) {
    Socket server;
    listenOnLoopback(server);
    Socket client(connectTo(boundPort(server.fd)));
    ASSERT_GE(client.fd, 0);
    Socket accepted(acceptClient(server.fd, nullptr, nullptr));
    ASSERT_GE(accepted.fd, 0) << strerror(errno);
    EXPECT_TRUE(fcntl(accepted.fd, F_GETFL) & O_NONBLOCK);
    char byte;
    errno = 0;
    EXPECT_EQ(read(accepted.fd, &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Sockets, AcceptWithNothingQueuedReturnsAtOnce) {
    Socket server;
    listenOnLoopback(server);
    errno = 0;
    EXPECT_EQ(acceptClient(server.fd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

namespace {

// Lowers the soft descriptor limit to what is open now and fills every free
// number below it; undone on destruction.
class Exhaustion {
public:
    Exhaustion() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit low = saved_;
        low.rlim_cur = static_cast<rlim_t>(highestOpen() + 8);
        setrlimit(RLIMIT_NOFILE, &low);
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) != -1;) fillers_.push_back(fd);
    }
    ~Exhaustion() {
        for (int fd : fillers_) close(fd);
        setrlimit(RLIMIT_NOFILE, &saved_);
    }

private:
    static int highestOpen() {
        int highest = 0;
        for (int fd = 0; fd < 4096; ++fd) {
            if (fcntl(fd, F_GETFD) != -1) highest = fd;
        }
        return highest;
    }
    rlimit saved_{};
    std::vector<int> fillers_;
};

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

}  // namespace

// Accepts `count` connections on `server`, their clients in `clients`.
void acceptMany(Socket const& server, int count, std::vector<std::unique_ptr<Socket>>& clients,
                std::vector<std::unique_ptr<Socket>>& accepted) {
    for (int i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<Socket>(connectTo(boundPort(server.fd))));
        accepted.push_back(std::make_unique<Socket>(acceptClient(server.fd, nullptr, nullptr)));
    }
}

TEST(Sockets, OutOfDescriptorsABusyListenersConnectionIsTakenOffTheQueueAndClosed) {
    Socket server;
    listenOnLoopback(server);
    std::vector<std::unique_ptr<Socket>> clients, accepted;
    acceptMany(server, acceptModestListener, clients, accepted);
    Socket client(connectTo(boundPort(server.fd)));
    ASSERT_GE(client.fd, 0);
    ASSERT_TRUE(readable(server.fd));
    unsigned long const refusedBefore = refusedConnections();
    {
        Exhaustion exhaustion;
        errno = 0;
        EXPECT_EQ(acceptClient(server.fd, nullptr, nullptr), -1);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_FALSE(readable(server.fd)) << "the refused connection left the queue";
    }
    EXPECT_EQ(refusedConnections(), refusedBefore + 1);
    char byte;
    EXPECT_EQ(read(client.fd, &byte, 1), 0) << "the client sees its connection closed";

    // The reserve is back: the next exhaustion is survived the same way.
    Socket second(connectTo(boundPort(server.fd)));
    ASSERT_GE(second.fd, 0);
    {
        Exhaustion exhaustion;
        EXPECT_EQ(acceptClient(server.fd, nullptr, nullptr), -1);
        EXPECT_FALSE(readable(server.fd));
    }
    EXPECT_EQ(refusedConnections(), refusedBefore + 2);
    Socket third(connectTo(boundPort(server.fd)));
    ASSERT_GE(third.fd, 0);
    Socket served(acceptClient(server.fd, nullptr, nullptr));
    EXPECT_GE(served.fd, 0) << "served again once descriptors are free";
}

TEST(Sockets, OutOfDescriptorsAModestListenerIsStillServedFromTheReserve) {
    Socket busy, modest;
    listenOnLoopback(busy);
    listenOnLoopback(modest);
    std::vector<std::unique_ptr<Socket>> clients, accepted;
    acceptMany(busy, acceptModestListener, clients, accepted);
    Socket flood(connectTo(boundPort(busy.fd)));
    Socket newcomer(connectTo(boundPort(modest.fd)));
    ASSERT_GE(newcomer.fd, 0);
    int served = -1;
    {
        Exhaustion exhaustion;
        EXPECT_EQ(acceptClient(busy.fd, nullptr, nullptr), -1);
        served = acceptClient(modest.fd, nullptr, nullptr);
        EXPECT_GE(served, 0) << strerror(errno);
    }
    ASSERT_EQ(write(newcomer.fd, "hi", 2), 2);
    char buf[2];
    EXPECT_EQ(read(served, buf, 2), 2);
    closeDescriptor(served);
}

TEST(ConnectClient, ReachesAListenerWithoutWaitingAndIsNonBlockingAndCloseOnExec) {
    Socket server;
    listenOnLoopback(server);
    sockaddr_in addr;
    setInetAddr("127.0.0.1", boundPort(server.fd), addr);
    int const fd = connectClient(addr);
    ASSERT_GE(fd, 0) << strerror(errno);
    Socket client(fd);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    pollfd writable{fd, POLLOUT, 0};
    ASSERT_EQ(poll(&writable, 1, 5000), 1);
    Socket accepted(acceptClient(server.fd, nullptr, nullptr));
    ASSERT_GE(accepted.fd, 0) << strerror(errno);
    ASSERT_EQ(write(fd, "hi", 2), 2);
    char buf[4];
    pollfd readable{accepted.fd, POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 5000), 1);
    ASSERT_EQ(read(accepted.fd, buf, sizeof buf), 2);
    EXPECT_EQ(std::string(buf, 2), "hi");
}

TEST(ConnectClient, AClosedPortShowsAsRefusedOnRead) {
    Socket server;
    listenOnLoopback(server);
    sockaddr_in addr;
    setInetAddr("127.0.0.1", boundPort(server.fd), addr);
    closeDescriptor(server.fd);
    server.fd = -1;
    int const fd = connectClient(addr);
    ASSERT_GE(fd, 0) << strerror(errno);
    Socket client(fd);
    pollfd ready{fd, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
    char buf[4];
    EXPECT_EQ(read(fd, buf, sizeof buf), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}
