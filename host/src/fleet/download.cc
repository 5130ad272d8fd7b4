#include <fcntl.h>
#include <nxahost/download.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "curl_turn.h"

namespace nxahost {

namespace {

// No data for this long and the attempt is given up (and tried again).
constexpr long kStalledSeconds = 30;
constexpr long kConnectSeconds = 10;
constexpr long kMostRedirects = 5;

std::string hex(unsigned char const* bytes, std::size_t count) {
    std::string text(count * 2 + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), bytes, count);
    text.pop_back();
    return text;
}

// Answers worth asking again: the server is overloaded, restarting or slow.
bool serverAway(long httpStatus) {
    return httpStatus >= 500 || httpStatus == 408 || httpStatus == 429;
}

// libcurl's results for a server that could not be reached or went away.
bool linkTrouble(CURLcode result) {
    switch (result) {
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_PARTIAL_FILE:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return true;
        default:
            return false;
    }
}

}  // namespace

// The file, its running hash, and libcurl's handles for the current attempt.
struct Download::Transfer {
    CurlTurn turn;
    CURL* easy = nullptr;
    int fd = -1;
    crypto_hash_sha256_state sha{};
    char error[CURL_ERROR_SIZE] = {};
    // Per attempt: whether the answer's status was looked at, and why writing stopped.
    bool answerSeen = false;
    bool tooLarge = false;
    int writeErrno = 0;
    std::uint64_t receivedAtStart = 0;

    ~Transfer() {
        stop();
        if (fd >= 0) close(fd);
    }
    void stop() {
        if (easy == nullptr) return;
        turn.remove(easy);
        curl_easy_cleanup(easy);
        easy = nullptr;
    }
};

Download::Download(DownloadRequest request, Clock const& clock, Jitter& jitter)
    : request_(std::move(request)), clock_(clock), jitter_(jitter), transfer_(std::make_unique<Transfer>()) {
    if (sodium_init() < 0) throw std::runtime_error("cannot initialise libsodium");
    openFile();
    attempt();
}

Download::~Download() = default;

int Download::addFds(FdSet& rd, FdSet& wr, int timeoutMs) const {
    if (state_ == State::running) return transfer_->turn.addFds(rd, wr, timeoutMs);
    if (state_ != State::waiting || !retryAt_) return timeoutMs;
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(*retryAt_ - clock_.now()).count();
    int const ours = static_cast<int>(std::max<long long>(0, left));
    return timeoutMs < 0 ? ours : std::min(timeoutMs, ours);
}

void Download::serve(FdSet const& rd, FdSet const& wr) {
    if (state_ == State::running) transfer_->turn.serve(rd, wr);
    if (state_ == State::waiting && retryAt_ && *retryAt_ <= clock_.now()) attempt();
}

// What an earlier attempt, or an earlier host, left in the file is kept and
// hashed; a file longer than declared is begun again.
void Download::openFile() {
    Transfer& t = *transfer_;
    t.fd = open(request_.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (t.fd < 0) throw std::runtime_error("cannot open " + request_.path + ": " + std::strerror(errno));
    crypto_hash_sha256_init(&t.sha);
    unsigned char chunk[65536];
    ssize_t got = 0;
    while ((got = read(t.fd, chunk, sizeof chunk)) > 0) {
        crypto_hash_sha256_update(&t.sha, chunk, static_cast<unsigned long long>(got));
        received_ += static_cast<std::uint64_t>(got);
    }
    if (got < 0) throw std::runtime_error("cannot read " + request_.path + ": " + std::strerror(errno));
    if (received_ > request_.size) beginAgain();
}

void Download::beginAgain() {
    Transfer& t = *transfer_;
    if (ftruncate(t.fd, 0) != 0 || lseek(t.fd, 0, SEEK_SET) != 0)
        throw std::runtime_error("cannot empty " + request_.path + ": " + std::strerror(errno));
    crypto_hash_sha256_init(&t.sha);
    received_ = 0;
}

void Download::attempt() {
    ++attempts_;
    state_ = State::running;
    retryAt_.reset();
    // A whole file from before needs no transfer, only its check.
    if (request_.sizeIsExact && received_ == request_.size && request_.size > 0) {
        if (hashMatches()) return done();
        beginAgain();
    }
    Transfer& t = *transfer_;
    t.easy = curl_easy_init();
    if (t.easy == nullptr) return fail("cannot make a libcurl handle");
    t.answerSeen = false;
    t.tooLarge = false;
    t.writeErrno = 0;
    t.error[0] = '\0';
    t.receivedAtStart = received_;
    configure();
    t.turn.add(t.easy, [this](CURLcode result) { finished(result); });
}

void Download::configure() {
    Transfer& t = *transfer_;
    CURL* const easy = t.easy;
    curl_easy_setopt(easy, CURLOPT_URL, request_.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMostRedirects);
    curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kStalledSeconds);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "nxahost");
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.error);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Download::onData);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    if (!request_.caFile.empty()) {
        // Only the named certificates, not the system's store beside them.
        curl_easy_setopt(easy, CURLOPT_CAINFO, request_.caFile.c_str());
        curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    }
    if (received_ > 0) curl_easy_setopt(easy, CURLOPT_RANGE, (std::to_string(received_) + "-").c_str());
}

std::size_t Download::onData(char* data, std::size_t, std::size_t count, void* self) {
    return static_cast<Download*>(self)->take(data, count);
}

// Keeps what fits in the declared size; a server that ignored the range
// request sends the whole file, which is then begun again.
std::size_t Download::take(char const* data, std::size_t count) {
    Transfer& t = *transfer_;
    if (!t.answerSeen) {
        t.answerSeen = true;
        long status = 0;
        curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
        if (status == 200 && received_ > 0) beginAgain();
    }
    std::uint64_t const room = request_.size - received_;
    std::size_t const kept = static_cast<std::size_t>(std::min<std::uint64_t>(count, room));
    std::size_t written = 0;
    while (written < kept) {
        ssize_t const n = write(t.fd, data + written, kept - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            t.writeErrno = errno;
            return 0;
        }
        written += static_cast<std::size_t>(n);
    }
    crypto_hash_sha256_update(&t.sha, reinterpret_cast<unsigned char const*>(data), kept);
    received_ += kept;
    if (kept < count) t.tooLarge = true;
    return kept;
}

void Download::finished(int curlResult) {
    Transfer& t = *transfer_;
    auto const result = static_cast<CURLcode>(curlResult);
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    std::string const detail = t.error[0] != '\0' ? t.error : curl_easy_strerror(result);
    bool const progressed = received_ > t.receivedAtStart;
    curl_easy_cleanup(t.easy);
    t.easy = nullptr;
    if (progressed) backoff_.reset();
    if (result == CURLE_OK) return checkWhole();
    if (t.tooLarge) return fail("it is larger than the declared " + std::to_string(request_.size) + " bytes");
    if (t.writeErrno != 0) return fail("cannot write " + request_.path + ": " + std::strerror(t.writeErrno));
    if (result == CURLE_HTTP_RETURNED_ERROR && status == 416) {
        // The server's file is shorter than what is here: it changed.
        beginAgain();
        return retryLater("HTTP 416 for " + request_.url + ": begun again");
    }
    if (result == CURLE_HTTP_RETURNED_ERROR && !serverAway(status))
        return fail("HTTP " + std::to_string(status) + " for " + request_.url);
    if (result == CURLE_HTTP_RETURNED_ERROR || linkTrouble(result)) return retryLater(detail);
    fail(detail);
}

void Download::checkWhole() {
    if (request_.sizeIsExact && received_ != request_.size)
        return fail("it has " + std::to_string(received_) + " bytes, not the declared " +
                    std::to_string(request_.size));
    if (!request_.sha256.empty() && !hashMatches())
        return fail("its SHA-256 is " + sha256() + ", not the declared " + request_.sha256);
    done();
}

std::string Download::sha256() const {
    // Finishing a hash ends its state: a copy is finished.
    crypto_hash_sha256_state copy = transfer_->sha;
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256_final(&copy, digest);
    return hex(digest, sizeof digest);
}

bool Download::hashMatches() const {
    return request_.sha256.empty() || sha256() == request_.sha256;
}

void Download::retryLater(std::string reason) {
    state_ = State::waiting;
    reason_ = std::move(reason);
    retryAt_ = clock_.now() + backoff_.next(jitter_);
}

// Nothing of a failed download is kept: it is not resumed.
void Download::fail(std::string reason) {
    state_ = State::failed;
    reason_ = std::move(reason);
    transfer_->stop();
    unlink(request_.path.c_str());
}

void Download::done() {
    state_ = State::done;
    reason_.clear();
}

}  // namespace nxahost
