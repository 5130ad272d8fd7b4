// The descriptors the host needs for its modules, and the process limit.
#pragma once

#include <cstddef>

namespace nxahost {

// Descriptors the host holds for each module: its listening socket, the two
// ends of its terminal, its bus connection and the bus client's own pair.
inline constexpr std::size_t kDescriptorsPerModule = 6;
// The host's own: standard streams, its bus connection, signal pipe, interest
// set, the accept reserve, and room for a few more.
inline constexpr std::size_t kHostDescriptors = 16;

// Raises the soft limit on open descriptors to the hard limit, then checks
// that it holds `modules` modules. Throws std::runtime_error ("300 modules
// need about 1816 descriptors; the limit is 1024") when it does not. Returns
// the limit in force.
unsigned long raiseDescriptorLimit(std::size_t modules);

}  // namespace nxahost
