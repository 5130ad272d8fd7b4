// How participant names travel on the bus: percent-encoded, so that a name of
// any bytes fits in an MQTT topic, client id or user property.
#pragma once

#include <optional>
#include <string>

namespace VLPBus {

// Every byte outside A-Z a-z 0-9 . _ ~ - becomes "%" and two upper-case hex
// digits; "NXAModule_demo" stays as it is, "a/b" becomes "a%2Fb".
std::string encodeName(std::string const& name);

// The reverse of encodeName(): "%" and two hex digits (either case) become that
// byte, every other byte stands for itself. Nothing when a "%" is not followed
// by two hex digits.
std::optional<std::string> decodeName(std::string const& wire);

}  // namespace VLPBus
