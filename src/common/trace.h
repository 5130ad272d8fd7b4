// The one trace frame of the library:
//     <tag><component>::<function>() <message pieces>\n
// written to standard output under LogUtil::logMutex and flushed. Every
// component writes through the macros below; the function name is the
// language's own __func__ of the function that writes ("Module" in a
// constructor, "~Module" in a destructor).
#pragma once

#include <vlplatform/log_util.h>

#include <iostream>
#include <mutex>
#include <ostream>

#include "nxaclient.h"

namespace nxa {
namespace trace {

// Level tags, each with its trailing blank.
inline constexpr char kInfo[] = "[INFO] ";
inline constexpr char kDebug[] = "[DEBUG] ";
inline constexpr char kWarning[] = "[WARNING] ";
inline constexpr char kError[] = "[ERROR] ";

// Components: the class part of every line.
inline constexpr char kClient[] = "NXAClient";
inline constexpr char kModules[] = "NXAModules";
inline constexpr char kModule[] = "NXAModule";
inline constexpr char kPeer[] = "NXAPeer";

// Writes the frame and the pieces to `os` without ending the line. The caller
// holds LogUtil::logMutex.
template <class... Pieces>
void compose(std::ostream& os, char const* tag, char const* component, char const* function,
             Pieces const&... pieces) {
    os << tag << component << "::" << function << "() ";
    (os << ... << pieces);
}

// One whole trace line: locked, ended with a line feed and flushed. A failed
// lock throws std::system_error to the caller.
template <class... Pieces>
void line(std::ostream& os, char const* tag, char const* component, char const* function,
          Pieces const&... pieces) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    compose(os, tag, component, function, pieces...);
    os << std::endl;
}

// A trace line left open: no line feed and no flush, so the next line written
// continues on the same output line.
template <class... Pieces>
void unterminated(std::ostream& os, char const* tag, char const* component, char const* function,
                  Pieces const&... pieces) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    compose(os, tag, component, function, pieces...);
}

// A line on standard error completed by LogUtil::printError(err) instead of a
// line feed.
template <class... Pieces>
void lineWithError(int err, char const* tag, char const* component, char const* function,
                   Pieces const&... pieces) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    compose(std::cerr, tag, component, function, pieces...);
    LogUtil::printError(err);
}

}  // namespace trace
}  // namespace nxa

// Lines written on behalf of `function`: for the steps of an operation that
// live in small helpers of their own, whose __func__ would name the helper.
// INFO, WARNING and ERROR lines are written at every trace level.
#define NXA_INFO_AS(component, function, ...) \
    ::nxa::trace::line(std::cout, ::nxa::trace::kInfo, component, function, __VA_ARGS__)
#define NXA_WARNING_AS(component, function, ...) \
    ::nxa::trace::line(std::cout, ::nxa::trace::kWarning, component, function, __VA_ARGS__)
#define NXA_ERROR_AS(component, function, ...) \
    ::nxa::trace::line(std::cout, ::nxa::trace::kError, component, function, __VA_ARGS__)

// DEBUG lines need a trace level other than 0; the guard is tested before
// anything else is done, so at level 0 a line costs one integer test.
#define NXA_DEBUG_AS(component, function, ...)                                                     \
    do {                                                                                           \
        if (NXAClient::debug != 0)                                                                 \
            ::nxa::trace::line(std::cout, ::nxa::trace::kDebug, component, function, __VA_ARGS__); \
    } while (0)

// Detailed DEBUG lines (per-chunk I/O, queue sizes, addresses) need a level above 1.
#define NXA_DETAIL_AS(component, function, ...)                                                    \
    do {                                                                                           \
        if (NXAClient::debug > 1)                                                                  \
            ::nxa::trace::line(std::cout, ::nxa::trace::kDebug, component, function, __VA_ARGS__); \
    } while (0)

// The same, named after the function that writes the line.
#define NXA_INFO(component, ...) NXA_INFO_AS(component, __func__, __VA_ARGS__)
#define NXA_WARNING(component, ...) NXA_WARNING_AS(component, __func__, __VA_ARGS__)
#define NXA_ERROR(component, ...) NXA_ERROR_AS(component, __func__, __VA_ARGS__)
#define NXA_DEBUG(component, ...) NXA_DEBUG_AS(component, __func__, __VA_ARGS__)
#define NXA_DETAIL(component, ...) NXA_DETAIL_AS(component, __func__, __VA_ARGS__)
