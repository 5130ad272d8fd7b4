// The registry's kept descriptors: refreshed for the modules that changed,
// asked for the modules that are ready.
#include "ready_index.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

NXAClient::Modules::ReadyIndex::ReadyIndex(List const& list) : registered_(list.size()) {
    // Each module is listed at most once: listing never allocates.
    changed_.reserve(list.size());
    for (std::size_t slot = 0; slot < list.size(); ++slot) {
        list[slot]->changeNote = Module::ChangeNote{&changed_, slot, true};
        changed_.push_back(slot);
    }
}

void NXAClient::Modules::ReadyIndex::forget(List const& list) {
    for (auto const& module : list) module->changeNote = Module::ChangeNote{};
}

// Every changed module gives up its old descriptors before any takes its new
// ones: a number that went from one changed module to another within the turn
// must lose the old owner's read and write interest before the new owner adds
// its own, whichever of the two was listed first.
void NXAClient::Modules::ReadyIndex::refresh(List const& list) {
    if (changed_.empty()) return;
    for (std::size_t slot : changed_) giveUp(slot);
    for (std::size_t slot : changed_) {
        Module const& module = *list[slot];
        module.changeNote.listed = false;
        take(module, slot);
    }
    changed_.clear();
}

// Only the recorded owner of a number gives it up.
void NXAClient::Modules::ReadyIndex::giveUp(std::size_t slot) {
    Registered& old = registered_[slot];
    for (std::vector<int> const* fds : {&old.rd, &old.wr}) {
        for (int fd : *fds) {
            if (owner_[static_cast<std::size_t>(fd)] != static_cast<std::int32_t>(slot)) continue;
            owner_[static_cast<std::size_t>(fd)] = kNobody;
            rd_.remove(fd);
            wr_.remove(fd);
        }
    }
    old.rd.clear();
    old.wr.clear();
}

void NXAClient::Modules::ReadyIndex::take(Module const& module, std::size_t slot) {
    scratchRd_.clear();
    scratchWr_.clear();
    module.addFds(scratchRd_, scratchWr_);
    Registered& now = registered_[slot];
    for (int fd = scratchRd_.next(0); fd != -1; fd = scratchRd_.next(fd + 1)) {
        now.rd.push_back(fd);
        rd_.add(fd);
        own(fd, slot);
    }
    for (int fd = scratchWr_.next(0); fd != -1; fd = scratchWr_.next(fd + 1)) {
        now.wr.push_back(fd);
        wr_.add(fd);
        own(fd, slot);
    }
}

void NXAClient::Modules::ReadyIndex::own(int fd, std::size_t slot) {
    auto const at = static_cast<std::size_t>(fd);
    if (at >= owner_.size()) owner_.resize(at + 1, kNobody);
    owner_[at] = static_cast<std::int32_t>(slot);
}

void NXAClient::Modules::ReadyIndex::addTo(FdSet& rd, FdSet& wr) const {
    rd.merge(rd_);
    wr.merge(wr_);
}

std::vector<std::size_t> const& NXAClient::Modules::ReadyIndex::collectReady(FdSet const& rd,
                                                                             FdSet const& wr) {
    ready_.clear();
    noteOwners(rd);
    noteOwners(wr);
    std::sort(ready_.begin(), ready_.end());
    ready_.erase(std::unique(ready_.begin(), ready_.end()), ready_.end());
    return ready_;
}

// Descriptors of the caller's own (not a module's) are passed over.
void NXAClient::Modules::ReadyIndex::noteOwners(FdSet const& set) {
    for (int fd = set.next(0); fd != -1; fd = set.next(fd + 1)) {
        auto const at = static_cast<std::size_t>(fd);
        if (at < owner_.size() && owner_[at] != kNobody)
            ready_.push_back(static_cast<std::size_t>(owner_[at]));
    }
}

namespace {

std::string listed(FdSet const& set) {
    std::string text;
    for (int fd = set.next(0); fd != -1; fd = set.next(fd + 1)) text += " " + std::to_string(fd);
    return text.empty() ? " none" : text;
}

bool sameMembers(FdSet const& a, FdSet const& b) {
    int x = a.next(0), y = b.next(0);
    for (; x != -1 && x == y; x = a.next(x + 1), y = b.next(y + 1)) {
    }
    return x == y;
}

}  // namespace

void NXAClient::Modules::ReadyIndex::requireUpToDate(List const& list) {
    scratchRd_.clear();
    scratchWr_.clear();
    for (auto const& module : list) module->addFds(scratchRd_, scratchWr_);
    if (sameMembers(scratchRd_, rd_) && sameMembers(scratchWr_, wr_)) return;
    std::cerr << "NXAModules: kept descriptors differ from the modules' own (a change without noteChanged)\n"
              << "  kept read:" << listed(rd_) << "\n  own read:" << listed(scratchRd_)
              << "\n  kept write:" << listed(wr_) << "\n  own write:" << listed(scratchWr_) << std::endl;
    std::abort();
}
