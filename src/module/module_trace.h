// Trace lines written by a step of a Module operation. Every line carries the
// name of the public operation it belongs to ("Module", "run", "handleInput"),
// while the step itself lives in a small private helper whose own name
// (__func__) would be the wrong one. Same frame and guards as the macros of
// client/trace.h; only the function name is given explicitly.
#pragma once

#include "client/trace.h"

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

#define NXA_MODULE_INFO(function, ...) \
    ::nxa::trace::line(std::cout, ::nxa::trace::kInfo, ::nxa::trace::kModule, function, __VA_ARGS__)
#define NXA_MODULE_WARNING(function, ...) \
    ::nxa::trace::line(std::cout, ::nxa::trace::kWarning, ::nxa::trace::kModule, function, __VA_ARGS__)
#define NXA_MODULE_ERROR(function, ...) \
    ::nxa::trace::line(std::cout, ::nxa::trace::kError, ::nxa::trace::kModule, function, __VA_ARGS__)

// Needs a trace level other than 0.
#define NXA_MODULE_DEBUG(function, ...)                                                          \
    do {                                                                                         \
        if (NXAClient::debug != 0)                                                               \
            ::nxa::trace::line(std::cout, ::nxa::trace::kDebug, ::nxa::trace::kModule, function, \
                               __VA_ARGS__);                                                     \
    } while (0)

// Needs a trace level above 1.
#define NXA_MODULE_DETAIL(function, ...)                                                         \
    do {                                                                                         \
        if (NXAClient::debug > 1)                                                                \
            ::nxa::trace::line(std::cout, ::nxa::trace::kDebug, ::nxa::trace::kModule, function, \
                               __VA_ARGS__);                                                     \
    } while (0)
