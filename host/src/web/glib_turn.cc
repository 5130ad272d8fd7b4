#include "glib_turn.h"

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
}

int GlibTurn::addFds(FdSet& rd, FdSet& wr, int timeoutMs) {
    g_main_context_prepare(context_, &priority_);
    gint timeout = -1;
    int count = 0;
    while ((count = g_main_context_query(context_, priority_, &timeout, fds_.data(),
                                         static_cast<gint>(fds_.size()))) > static_cast<int>(fds_.size()))
        fds_.resize(static_cast<std::size_t>(count));
    polled_ = count;
    prepared_ = true;
    for (int i = 0; i < polled_; ++i) {
        GPollFD& fd = fds_[static_cast<std::size_t>(i)];
        fd.revents = 0;
        if (fd.events & (G_IO_IN | G_IO_HUP | G_IO_ERR | G_IO_PRI)) rd.add(fd.fd);
        if (fd.events & G_IO_OUT) wr.add(fd.fd);
    }
    if (timeout < 0) return timeoutMs;
    return timeoutMs < 0 ? timeout : std::min(timeoutMs, timeout);
}

void GlibTurn::dispatch(FdSet const& rd, FdSet const& wr) {
    if (!prepared_) return;
    prepared_ = false;
    for (int i = 0; i < polled_; ++i) {
        GPollFD& fd = fds_[static_cast<std::size_t>(i)];
        // The wait counts a hang-up or an error as readable; the reader finds out which.
        if (rd.isSet(fd.fd)) fd.revents |= static_cast<gushort>(fd.events & (G_IO_IN | G_IO_PRI | G_IO_HUP));
        if (wr.isSet(fd.fd)) fd.revents |= static_cast<gushort>(fd.events & G_IO_OUT);
    }
    if (g_main_context_check(context_, priority_, fds_.data(), polled_)) g_main_context_dispatch(context_);
}

void GlibTurn::runPending(int rounds) {
    for (int i = 0; i < rounds && g_main_context_iteration(context_, FALSE); ++i) {
    }
}

}  // namespace nxahost
