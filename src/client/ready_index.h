// The registry's record of which module registers which descriptor, kept
// from one turn of the host's loop to the next, so that a turn costs what is
// ready and what changed rather than every module.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "nxaclient.h"

// Every module's descriptors as its addFds() last gave them, their union, and
// the owner of each descriptor number. A module that may have changed lists
// itself (Module::noteChanged) and is asked again by the next refresh(); the
// others are not visited. Knows the modules by their place in the registry's
// list: a list that changed needs a new index.
class NXAClient::Modules::ReadyIndex {
public:
    using List = std::vector<std::unique_ptr<Module>>;

    // Takes every module of `list` at the next refresh, and has each tell this
    // index of its changes from now on (until forgotten, see forget()).
    explicit ReadyIndex(List const& list);
    // The modules of `list` no longer tell this index of their changes: to be
    // called before the index or the list goes.
    static void forget(List const& list);
    ReadyIndex(ReadyIndex const&) = delete;
    ReadyIndex& operator=(ReadyIndex const&) = delete;

    // Asks the modules that changed since the last refresh for their descriptors.
    void refresh(List const& list);
    // Adds the union of the modules' descriptors, as of the last refresh.
    void addTo(FdSet& rd, FdSet& wr) const;
    // The places of the modules with a descriptor set in `rd` or `wr`,
    // ascending; valid until the next call.
    std::vector<std::size_t> const& collectReady(FdSet const& rd, FdSet const& wr);
    // Ends the process with a message on standard error when the kept
    // descriptors differ from what every module's addFds() gives now: a
    // Module operation that changed its descriptors without noteChanged().
    // For checking builds only: it asks every module.
    void requireUpToDate(List const& list);

private:
    struct Registered {
        std::vector<int> rd;
        std::vector<int> wr;
    };
    void giveUp(std::size_t slot);
    void take(Module const& module, std::size_t slot);
    void own(int fd, std::size_t slot);
    void noteOwners(FdSet const& set);

    static constexpr std::int32_t kNobody = -1;

    std::vector<Registered> registered_;
    std::vector<std::size_t> changed_;
    std::vector<std::int32_t> owner_;  // descriptor number -> place, kNobody
    FdSet rd_;
    FdSet wr_;
    FdSet scratchRd_;
    FdSet scratchWr_;
    std::vector<std::size_t> ready_;
};
