// Clients whose connection failed while the modules were served.
#pragma once

#include <nxaclient.h>

#include <exception>

namespace nxahost {

// When `e`, thrown while the modules were served, is a client's fault (see
// isClientFault): writes one INFO line "connection telnet:N lost: ...",
// detaches that client from its module (its connection closed, its queued
// output freed) and, when no other client that can type (a TCP client, a
// browser terminal) is left, drops the
// input it typed that the program has not taken yet, so a lost client costs
// that one line and nothing after it. A read or write that would only have
// blocked or was interrupted is no loss: nothing is written or changed.
// Returns whether `e` was a client's fault (handled here); false for any
// other error, which is left to the caller.
bool dropLostClient(NXAClient& client, std::exception const& e);

}  // namespace nxahost
