// The registry's turn at the cost of what is ready: descriptors kept between
// turns, and visits of the modules that have something ready only.
#include "nxaclient.h"
#include "ready_index.h"

NXAClient::Modules::ReadyIndex& NXAClient::Modules::readyIndex() {
    if (!ready) ready = std::make_unique<ReadyIndex>(list);
    ready->refresh(list);
    return *ready;
}

void NXAClient::Modules::forgetReadyIndex() {
    if (!ready) return;
    ReadyIndex::forget(list);
    ready.reset();
}

void NXAClient::Modules::addFdsCached(FdSet& rd, FdSet& wr) {
    ReadyIndex& index = readyIndex();
#ifdef NXA_CHECK_KEPT_DESCRIPTORS
    // Debug and sanitizer builds: a Module operation that forgot noteChanged()
    // ends the process here rather than leaving a stale descriptor behind.
    index.requireUpToDate(list);
#endif
    index.addTo(rd, wr);
}

void NXAClient::Modules::handleReady(FdSet const& rd, FdSet const& wr) {
    std::vector<std::size_t> const& due = readyIndex().collectReady(rd, wr);
    for (std::size_t slot : due) list[slot]->handleInput(rd);
    for (std::size_t slot : due) list[slot]->handleOutput(wr);
}
