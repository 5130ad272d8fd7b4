#include <nxahost/log.h>
#include <nxahost/serve_failures.h>

namespace nxahost {

namespace {

// The texts the library gives a telnet peer's failures: read, write, end of stream.
constexpr char const* kClientFaultPrefixes[] = {"cannot read from ", "cannot write to ", "EOF on "};
constexpr char kTelnetId[] = "telnet:";

}  // namespace

bool isClientFault(std::string const& what, std::string& peer) {
    for (char const* prefix : kClientFaultPrefixes) {
        std::string const start = std::string(prefix) + kTelnetId;
        if (what.compare(0, start.size(), start) != 0) continue;
        std::size_t const idStart = start.size() - (sizeof kTelnetId - 1);
        std::size_t const idEnd = what.find(':', start.size());
        peer = what.substr(idStart, idEnd == std::string::npos ? std::string::npos : idEnd - idStart);
        return true;
    }
    return false;
}

void ServeFailures::served(Clock::time_point now) {
    if (!failing_) return;
    reportRepeats(now, true);
    failing_ = false;
    lastError_.clear();
}

bool ServeFailures::failed(std::exception const& e, Clock::time_point now) {
    std::string const what = e.what();
    if (!failing_) {
        failing_ = true;
        firstFailure_ = now;
    }
    if (what == lastError_) {
        ++repeats_;
        reportRepeats(now, false);
    } else {
        reportRepeats(now, true);
        lastError_ = what;
        repeatsSince_ = now;
        hostLog(kHostError, what);
    }
    if (now - firstFailure_ < kGiveUpAfter) return false;
    reportRepeats(now, true);
    hostLog(kHostError, "every turn has failed for ", kGiveUpAfter.count(), " s; giving up");
    return true;
}

// At most one line a second while an error repeats, and one when it stops.
void ServeFailures::reportRepeats(Clock::time_point now, bool last) {
    if (repeats_ == 0 || (!last && now - repeatsSince_ < std::chrono::seconds(1))) return;
    hostLog(kHostError, "the last error came again ", repeats_, " time", repeats_ == 1 ? "" : "s");
    repeats_ = 0;
    repeatsSince_ = now;
}

}  // namespace nxahost
