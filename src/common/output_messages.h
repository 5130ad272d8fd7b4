// The bus messages about a module's output. A subscriber starts and stops it
// with a system message of kind kCommandKind whose whole text is one of the
// two commands; output travels as system messages of kind kTextKind, both to
// subscribers and from the host's own bus name to every module.
#pragma once

namespace nxa {

inline constexpr unsigned char kCommandKind = 4;
inline constexpr unsigned char kTextKind = 0x22;
inline constexpr char kStartOutput[] = "71-NXAStartOutput";
inline constexpr char kStopOutput[] = "72-NXAStopOutput";

}  // namespace nxa
