// The host's own lines on standard output: "[LEVEL] <name>: text", written
// whole under the trace lock the library uses, and flushed. The name is
// "nxahost" unless the daemon that embeds the kit gives its own.
#pragma once

#include <vlplatform/log_util.h>

#include <iostream>
#include <mutex>
#include <string>

namespace nxahost {

inline constexpr char kHostInfo[] = "[INFO] ";
inline constexpr char kHostWarning[] = "[WARNING] ";
inline constexpr char kHostError[] = "[ERROR] ";
inline constexpr char kHostDebug[] = "[DEBUG] ";

// The name every line carries after its level; "nxahost" at first.
std::string const& logName();
// Sets the name lines carry from now on (a daemon that embeds the kit).
void setLogName(std::string name);

// Writes one line: `tag`, the log name, ": " and the pieces.
template <class... Pieces>
void hostLog(char const* tag, Pieces const&... pieces) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout << tag << logName() << ": ";
    (std::cout << ... << pieces);
    std::cout << std::endl;
}

}  // namespace nxahost
