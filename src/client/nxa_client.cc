// The facade: configuration, the polling entry points (forwarded to the
// registry) and the process-wide trace level.
#include <vlplatform/system.h>
#include <vlplatform/zipper.h>

#include <stdexcept>

#include "nxaclient.h"
#include "trace.h"

unsigned int NXAClient::debug = 0;

namespace {

// A directory argument as a string. A null pointer is refused with the text
// the standard library itself has always used for that mistake.
std::string requireText(char const* text) {
    if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
    return text;
}

}  // namespace

NXAClient::NXAClient(char const* packageDirArg, char const* modulesDirArg, char const* workDirArg,
                     unsigned long /* accepted and ignored */, unsigned short port, unsigned long maxModules,
                     std::string const& spareTextArg, unsigned int level)
    : packageDir(requireText(packageDirArg)),
      modulesDir(requireText(modulesDirArg)),
      workDir(requireText(workDirArg)),
      spareText(spareTextArg),
      modules(port, maxModules),
      totalRam(getTotalRam()) {
    debug = level;
    zipper::setDebug(level);
    NXA_INFO(nxa::trace::kClient, "totalram=", totalRam, " joblimit=", joblimit);
}

NXAClient::~NXAClient() {
    modules.stop();
}

void NXAClient::run() {
    unpack();
    modules.run();
}

void NXAClient::stop() {
    modules.stop();
}

void NXAClient::addFds(FdSet& rd, FdSet& wr) const {
    modules.addFds(rd, wr);
}

bool NXAClient::handle(RouterMessage const& msg) const {
    return modules.handle(msg);
}

void NXAClient::handleInput(FdSet const& rd) const {
    modules.handleInput(rd);
}

void NXAClient::handleOutput(FdSet const& wr) const {
    modules.handleOutput(wr);
}

void NXAClient::addFdsCached(FdSet& rd, FdSet& wr) {
    modules.addFdsCached(rd, wr);
}

void NXAClient::handleReady(FdSet const& rd, FdSet const& wr) {
    modules.handleReady(rd, wr);
}

void NXAClient::getRunLog(std::string& out) const {
    out.clear();
    modules.getRunLog(out);
}

std::vector<std::string> NXAClient::getModulesInstalled() const {
    return modules.getModuleNames();
}
