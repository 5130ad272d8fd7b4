// The process-wide trace lock and the error reporter.
#include "vlplatform/log_util.h"

#include <iostream>
#include <system_error>

namespace LogUtil {

std::mutex logMutex;

void printError(int err) {
    // The system category's message is strerror's text, without strerror's
    // shared static buffer.
    std::cerr << std::system_category().message(err) << std::endl;
}

}  // namespace LogUtil
