// The names of the Module operations whose steps write trace lines from small
// private helpers: every line carries the name of the public operation it
// belongs to ("Module", "run", "handleInput"), given to the NXA_*_AS macros of
// client/trace.h, since the helper's own __func__ would be the wrong one.
#pragma once

#include "trace.h"

namespace nxa {
namespace module {

// The operations whose steps write trace lines from helpers.
inline constexpr char kConstructor[] = "Module";
inline constexpr char kScan[] = "scan";
inline constexpr char kRun[] = "run";
inline constexpr char kHandleInput[] = "handleInput";
inline constexpr char kHandleOutput[] = "handleOutput";

}  // namespace module
}  // namespace nxa
