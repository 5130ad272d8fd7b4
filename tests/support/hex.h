// Bytes as hex digits and back, as mosquitto_sub's %x format prints a payload.
#pragma once

#include <string>

namespace nxatest {

// The bytes of `bytes` as lower-case hex digits, two a byte.
std::string toHex(std::string const& bytes);

// The bytes that the pairs of hex digits in `hex` stand for; a last odd
// digit is left out.
std::string fromHex(std::string const& hex);

}  // namespace nxatest
