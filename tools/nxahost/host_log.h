// The host daemon's own lines on standard output: "[LEVEL] nxahost: text",
// written whole under the trace lock the library uses, and flushed.
#pragma once

#include <vlplatform/log_util.h>

#include <iostream>
#include <mutex>

inline constexpr char kHostInfo[] = "[INFO] ";
inline constexpr char kHostWarning[] = "[WARNING] ";
inline constexpr char kHostError[] = "[ERROR] ";

template <class... Pieces>
void hostLog(char const* tag, Pieces const&... pieces) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout << tag << "nxahost: ";
    (std::cout << ... << pieces);
    std::cout << std::endl;
}
