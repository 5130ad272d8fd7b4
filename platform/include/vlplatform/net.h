// Socket and terminal helpers.
#pragma once

#include <netinet/in.h>
#include <ostream>
#include <sys/socket.h>

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
void listenConnection(int fd, int backlog);

// Accepts one connection on the listening fd and returns its descriptor (close-on-exec,
// so later children do not keep client connections open), or -1 with errno.
// addr and len may be null.
int acceptClient(int fd, sockaddr* addr, socklen_t* len);

// Opens a new pseudo-terminal pair: master with posix_openpt(flags | O_NOCTTY),
// slave read-write (O_RDWR | O_NOCTTY, so it does not become the controlling
// terminal), the terminal already in raw mode (cfmakeraw), so even the first
// bytes a child writes pass unchanged. Returns 0, or -1 with errno; master and
// slave are then unchanged and nothing is left open.
int openPtyPair(int& master, int& slave, int flags);

// Prints the address as a.b.c.d:port.
std::ostream& operator<<(std::ostream& os, sockaddr_in const& addr);
