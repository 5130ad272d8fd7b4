// Which listening socket each open accepted connection came from, so that
// acceptClient can tell a listener holding many connections from one holding
// few when descriptors run out.
#pragma once

namespace vlp {
namespace accepted {

// `connection` was just accepted on `listener`.
void noteAccepted(int connection, int listener);
// `fd` is being closed; if it is an accepted connection, its listener holds one fewer.
void noteClosed(int fd);
// How many open connections accepted on `listener` there are.
unsigned countFor(int listener);

}  // namespace accepted
}  // namespace vlp
