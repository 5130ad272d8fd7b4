#include "glib_turn.h"

#include <vlplatform/descriptors.h>

#include <algorithm>

namespace nxahost {

GlibTurn::GlibTurn() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {
    // Only this thread ever drives the context.
    g_main_context_acquire(context_);
    fds_.resize(16);
}

GlibTurn::~GlibTurn() {
    g_main_loop_unref(loop_);
    g_main_context_release(context_);
    g_main_context_unref(context_);
    for (int fd : recorded_) forgetDescriptor(fd);
}

int GlibTurn::addFds(FdSet& rd, FdSet& wr, int timeoutMs) {
    if (!prepared_) beginIteration();
    for (int i = 0; i < polled_; ++i) {
        GPollFD const& fd = fds_[static_cast<std::size_t>(i)];
        if (fd.events & (G_IO_IN | G_IO_HUP | G_IO_ERR | G_IO_PRI)) rd.add(fd.fd);
        if (fd.events & G_IO_OUT) wr.add(fd.fd);
    }
    if (!deadline_) return timeoutMs;
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - Clock::now()).count();
    int const ours = static_cast<int>(std::max<long long>(0, left));
    return timeoutMs < 0 ? ours : std::min(timeoutMs, ours);
}

// Asks the context for what it waits on in the iteration that begins.
void GlibTurn::beginIteration() {
    g_main_context_prepare(context_, &priority_);
    gint timeout = -1;
    int count = 0;
    while ((count = g_main_context_query(context_, priority_, &timeout, fds_.data(),
                                         static_cast<gint>(fds_.size()))) > static_cast<int>(fds_.size()))
        fds_.resize(static_cast<std::size_t>(count));
    polled_ = count;
    prepared_ = true;
    deadline_.reset();
    if (timeout >= 0) deadline_ = Clock::now() + std::chrono::milliseconds(timeout);
    for (int i = 0; i < polled_; ++i) fds_[static_cast<std::size_t>(i)].revents = 0;
    recordDescriptors();
}

// New descriptors are recorded; those the context no longer has are forgotten.
void GlibTurn::recordDescriptors() {
    std::set<int> now;
    for (int i = 0; i < polled_; ++i) now.insert(fds_[static_cast<std::size_t>(i)].fd);
    for (int fd : now) {
        if (recorded_.count(fd) == 0) noteDescriptorOpened(fd);
    }
    for (int fd : recorded_) {
        if (now.count(fd) == 0) forgetDescriptor(fd);
    }
    recorded_.swap(now);
}

void GlibTurn::dispatch(FdSet const& rd, FdSet const& wr) {
    if (!prepared_) return;
    bool ready = false;
    for (int i = 0; i < polled_; ++i) {
        GPollFD& fd = fds_[static_cast<std::size_t>(i)];
        // The wait counts a hang-up or an error as readable; the reader finds out which.
        if (rd.isSet(fd.fd)) fd.revents |= static_cast<gushort>(fd.events & (G_IO_IN | G_IO_PRI | G_IO_HUP));
        if (wr.isSet(fd.fd)) fd.revents |= static_cast<gushort>(fd.events & G_IO_OUT);
        ready = ready || fd.revents != 0;
    }
    if (!ready && (!deadline_ || Clock::now() < *deadline_)) return;
    prepared_ = false;
    if (g_main_context_check(context_, priority_, fds_.data(), polled_)) g_main_context_dispatch(context_);
}

void GlibTurn::forget(int fd) {
    if (recorded_.erase(fd) != 0) forgetDescriptor(fd);
}

void GlibTurn::runPending(int rounds) {
    for (int i = 0; i < rounds && g_main_context_iteration(context_, FALSE); ++i) {
    }
}

}  // namespace nxahost
