// The descriptor record: stamps in pages allocated on first use (a process
// rarely holds more than a few thousand numbers), and a ring of recent changes.
// Atomics only: any thread may open or close descriptors.
#include "descriptor_registry.h"

#include <atomic>

namespace vlp {
namespace descriptors {

namespace {

constexpr int kPageBits = 12;
constexpr int kPageSize = 1 << kPageBits;
// Numbers up to 4 Mi are recorded; higher ones count as never recorded.
constexpr int kPages = 1024;
constexpr std::uint64_t kLogSize = 1024;

using Slot = std::atomic<std::uint64_t>;  // changedAt << 1 | open

std::atomic<Slot*> pages[kPages];
std::atomic<std::uint64_t> latest{0};

struct LogEntry {
    std::atomic<std::uint64_t> generation{0};
    std::atomic<int> fd{-1};
};
LogEntry changeLog[kLogSize];

bool inRange(int fd) {
    return fd >= 0 && fd < kPages * kPageSize;
}

Slot* pageFor(int fd, bool create) {
    std::atomic<Slot*>& entry = pages[fd >> kPageBits];
    Slot* page = entry.load(std::memory_order_acquire);
    if (page != nullptr || !create) return page;
    Slot* fresh = new Slot[kPageSize]();
    if (entry.compare_exchange_strong(page, fresh, std::memory_order_acq_rel)) return fresh;
    delete[] fresh;  // another thread was first; `page` holds its page
    return page;
}

}  // namespace

std::uint64_t generation() {
    return latest.load(std::memory_order_acquire);
}

Stamp stampOf(int fd) {
    if (!inRange(fd)) return {0, false};
    Slot* page = pageFor(fd, false);
    if (page == nullptr) return {0, false};
    std::uint64_t value = page[fd & (kPageSize - 1)].load(std::memory_order_acquire);
    return {value >> 1, (value & 1) != 0};
}

void record(int fd, bool open) {
    if (!inRange(fd)) return;
    Slot* page = pageFor(fd, true);
    std::uint64_t const stamp = latest.fetch_add(1, std::memory_order_acq_rel) + 1;
    page[fd & (kPageSize - 1)].store(stamp << 1 | (open ? 1 : 0), std::memory_order_release);
    // Marked unreadable while it is rewritten (see changedBetween).
    LogEntry& entry = changeLog[stamp % kLogSize];
    entry.generation.store(0);
    entry.fd.store(fd);
    entry.generation.store(stamp);
}

bool changedBetween(std::uint64_t since, std::uint64_t upTo, std::vector<int>& out) {
    if (upTo - since > kLogSize) return false;
    for (std::uint64_t g = since + 1; g <= upTo; ++g) {
        LogEntry const& entry = changeLog[g % kLogSize];
        std::uint64_t const before = entry.generation.load();
        int const fd = entry.fd.load();
        // Overwritten by a newer change, or being written by another thread.
        if (before != g || entry.generation.load() != g) return false;
        out.push_back(fd);
    }
    return true;
}

}  // namespace descriptors
}  // namespace vlp
