#include <nxahost/log.h>

namespace nxahost {
namespace {

std::string& name() {
    static std::string theName = "nxahost";
    return theName;
}

}  // namespace

std::string const& logName() {
    return name();
}

void setLogName(std::string newName) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    name() = std::move(newName);
}

}  // namespace nxahost
