// Socket and terminal helpers.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <ostream>

// Fills `addr` with the IPv4 address of `host` (a dotted address or a name;
// null means any local address) and `port`, and returns the length to pass to
// bindSocket. Throws IOException(EINVAL, "cannot resolve " + host + " (" + the
// resolver's text + ")") when `host` has no IPv4 address (errno instead of
// EINVAL when the resolver failed on a system call).
socklen_t setInetAddr(char const* host, unsigned short port, sockaddr_in& addr);

// Binds fd to addr. Throws IOException(errno, "cannot bind to " + address) on failure,
// e.g. "cannot bind to 0.0.0.0:20100: Address already in use".
void bindSocket(int fd, sockaddr_in const& addr, socklen_t len);

// Starts listening on fd. Throws IOException(errno, "cannot listen on socket") on failure.
// Also fills the reserve of acceptClient (see there).
void listenConnection(int fd, int backlog);

// Descriptors acceptClient holds in reserve for the moment the others run out
// (see there), and the fewest connections that make a listener more than modest.
inline constexpr unsigned acceptReserveSize = 8;
inline constexpr unsigned acceptModestListener = 8;

// Accepts one connection on the listening fd and returns its descriptor, or -1
// with errno. addr and len may be null. The connection is non-blocking and
// close-on-exec (later children do not keep client connections open), and is
// recorded as opened (vlplatform/descriptors.h). The listening socket is made
// non-blocking too, so a call never waits: with nothing to accept it returns
// -1 with EAGAIN.
//
// When the process (EMFILE) or the system (ENFILE) is out of descriptors, the
// reserve of acceptReserveSize descriptors comes into play. A listener with
// fewer than acceptModestListener open connections accepted by this function
// gets one of them: its connection is accepted all the same, so one listener
// flooded with clients cannot lock the others' clients out. Any other
// listener's connection is still taken off the queue, accepted into a freed
// reserve descriptor and closed at once (its client sees it closed), so the
// listening socket stops being ready; the result is then -1 with that errno,
// and refusedConnections() counts it. The reserve is filled again whenever
// descriptors allow. Connections must be closed with closeDescriptor for the
// listener's count to drop.
int acceptClient(int fd, sockaddr* addr, socklen_t* len);

// Starts a TCP connection to `addr` and returns its descriptor, or -1 with
// errno. The socket is non-blocking and close-on-exec, and is recorded as
// opened (vlplatform/descriptors.h); close it with closeDescriptor. The call
// never waits: the connection may still be under way when it returns (it is
// made once the socket is writable; a refusal shows as a failed read or
// write, ECONNREFUSED).
int connectClient(sockaddr_in const& addr);

// Makes acceptClient give every connection it accepts from now on TCP
// keep-alive and TCP_USER_TIMEOUT, so that a client whose machine or network
// vanished shows as a failed read or write (ETIMEDOUT) within about `seconds`,
// also while output waits unacknowledged for it. 0 (the default) leaves the
// system's settings.
void setAcceptedConnectionTimeout(unsigned seconds);

// How many connections acceptClient has taken off a queue and closed for lack
// of descriptors, in this process so far.
unsigned long refusedConnections();

// Fills the reserve of acceptClient now, as far as descriptors allow
// (listenConnection and acceptClient do so themselves; a process that wants
// it before its first listen calls this). The reserve's descriptors are
// close-on-exec and stay for the life of the process.
void setAsideAcceptReserve();

// Opens a new pseudo-terminal pair: master with posix_openpt(flags | O_NOCTTY),
// slave read-write (O_RDWR | O_NOCTTY, so it does not become the controlling
// terminal), the terminal already in raw mode (cfmakeraw), so even the first
// bytes a child writes pass unchanged. The master is non-blocking, so a polling
// loop reading or writing it never waits; the slave, the program's terminal,
// blocks as usual. Both are recorded as opened (vlplatform/descriptors.h).
// Returns 0, or -1 with errno; master and slave are then unchanged and nothing
// is left open.
int openPtyPair(int& master, int& slave, int flags);

// Prints the address as a.b.c.d:port.
std::ostream& operator<<(std::ostream& os, sockaddr_in const& addr);
