// The browser console in the test's own loop, with hooks the test gives: the
// routes of its pages and answers, a restart answered once it is done, and the
// requests it refuses (another site, beyond its connections).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nxahost/web_console.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture.h"

namespace hosttest {
namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr unsigned short kPort = 21480;

std::string webRoot() {
    char const* source = std::getenv("NXA_SOURCE_DIR");
    return std::string(source != nullptr ? source : ".") + "/share/nxa/web";
}

// One HTTP exchange over a connection of the test's own.
class HttpClient {
public:
    HttpClient() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(kPort);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    }
    ~HttpClient() { ::close(fd_); }
    void send(std::string const& request) {
        EXPECT_EQ(::send(fd_, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    }
    // Reads what has arrived; true once a whole answer is in (its headers
    // and Content-Length bytes) or the connection closed.
    bool complete() {
        char buffer[8192];
        ssize_t n;
        while ((n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
            text_.append(buffer, static_cast<std::size_t>(n));
        if (n == 0) return true;
        std::size_t const end = text_.find("\r\n\r\n");
        if (end == std::string::npos) return false;
        std::size_t const length = text_.find("content-length: ");
        if (length == std::string::npos || length > end) return false;
        return text_.size() >= end + 4 + std::stoul(text_.substr(length + 16));
    }
    int status() const { return text_.size() > 12 ? std::stoi(text_.substr(9, 3)) : 0; }
    std::string body() const {
        std::size_t const end = text_.find("\r\n\r\n");
        return end == std::string::npos ? std::string() : text_.substr(end + 4);
    }
    std::string const& text() const { return text_; }

private:
    int fd_ = -1;
    std::string text_;
};

std::string get(std::string const& path, std::string const& host = "127.0.0.1:21480") {
    return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
}

std::string post(std::string const& path, std::string const& origin = "http://127.0.0.1:21480") {
    return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1:21480\r\nOrigin: " + origin +
           "\r\nContent-Length: 0\r\n\r\n";
}

class WebConsole : public ::testing::Test {
protected:
    WebConsole() {
        nxahost::WebConsoleHooks hooks;
        hooks.status = [] { return json{{"ok", true}, {"modules", json::array({json{{"name", "echo"}}})}}; };
        hooks.restart = [this](std::string const& module, std::function<void(std::string const&)> done) {
            if (module != "echo") return false;
            restarts.push_back(std::move(done));
            return true;
        };
        console = std::make_unique<nxahost::WebConsole>(
            client, nxahost::WebConsoleSetup{"127.0.0.1", kPort, webRoot(), 0}, std::move(hooks));
    }

    // Turns of the loop the console lives in until `condition` holds; false after 10 s.
    bool turnUntil(std::function<bool()> const& condition) {
        auto const deadline = Clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (Clock::now() > deadline) return false;
            FdSet rd, wr;
            int const timeout = console->addFds(rd, wr, 20);
            if (waitFds(rd, wr, timeout < 0 || timeout > 20 ? 20 : timeout) < 0) {
                rd.clear();
                wr.clear();
            }
            console->serve(rd, wr);
        }
        return true;
    }
    // Sends `request` on a new connection and turns until its answer is in.
    std::unique_ptr<HttpClient> exchange(std::string const& request) {
        auto client = std::make_unique<HttpClient>();
        client->send(request);
        EXPECT_TRUE(turnUntil([&] { return client->complete(); })) << request;
        return client;
    }

    nxatest::Capture quiet;
    // A facade without modules: no terminal page is served.
    NXAClient client{"/var/opt/velmora", "/var/opt/velmora/nxa", "/var/opt/velmora/work", 0, 21000, 4, "", 0};
    std::vector<std::function<void(std::string const&)>> restarts;
    std::unique_ptr<nxahost::WebConsole> console;
};

TEST_F(WebConsole, ThePagesAndTheStatusAreServed) {
    auto page = exchange(get("/"));
    EXPECT_EQ(page->status(), 200);
    EXPECT_NE(page->body().find("<html"), std::string::npos) << page->text();
    auto status = exchange(get("/status.json"));
    EXPECT_EQ(status->status(), 200);
    EXPECT_EQ(json::parse(status->body()),
              (json{{"ok", true}, {"modules", json::array({json{{"name", "echo"}}})}}));
    EXPECT_EQ(exchange(get("/status.js"))->status(), 200);
}

TEST_F(WebConsole, UnknownPathsAndModulesAreNotFound) {
    EXPECT_EQ(exchange(get("/nothing"))->status(), 404);
    EXPECT_EQ(exchange(get("/module/nothing"))->status(), 404);
    EXPECT_EQ(exchange(get("/xterm/lib/../../../etc/passwd.js"))->status(), 404);
    auto restart = exchange(post("/module/nothing/restart"));
    EXPECT_EQ(restart->status(), 404);
    EXPECT_EQ(json::parse(restart->body())["error"], "no module named nothing");
}

TEST_F(WebConsole, ARestartIsAnsweredOnceTheNewProgramRunsOrWithWhyItCouldNot) {
    HttpClient first;
    first.send(post("/module/echo/restart"));
    ASSERT_TRUE(turnUntil([&] { return restarts.size() == 1; }));
    // Another request is served meanwhile; the restart's answer waits.
    EXPECT_EQ(exchange(get("/status.json"))->status(), 200);
    EXPECT_FALSE(first.complete()) << "answered before it was done: " << first.text();
    restarts[0]("");
    ASSERT_TRUE(turnUntil([&] { return first.complete(); }));
    EXPECT_EQ(first.status(), 200);
    EXPECT_EQ(json::parse(first.body()), (json{{"ok", true}}));

    HttpClient second;
    second.send(post("/module/echo/restart"));
    ASSERT_TRUE(turnUntil([&] { return restarts.size() == 2; }));
    restarts[1]("cannot start module program echo again: cannot fork");
    ASSERT_TRUE(turnUntil([&] { return second.complete(); }));
    EXPECT_EQ(second.status(), 500);
    EXPECT_EQ(json::parse(second.body())["error"], "cannot start module program echo again: cannot fork");
}

TEST_F(WebConsole, AnAnswerForAConnectionThatWentAwayIsDropped) {
    {
        HttpClient gone;
        gone.send(post("/module/echo/restart"));
        ASSERT_TRUE(turnUntil([&] { return restarts.size() == 1; }));
    }
    // The connection's end is seen before the restart is done.
    EXPECT_EQ(exchange(get("/status.json"))->status(), 200);
    restarts[0]("");
    EXPECT_EQ(exchange(get("/status.json"))->status(), 200) << "the console serves on";
}

TEST_F(WebConsole, RequestsForAnotherSiteOrFromAnotherSitesPageAreRefused) {
    EXPECT_EQ(exchange(get("/status.json", "evil.example"))->status(), 403);
    EXPECT_EQ(exchange(get("/status.json", "localhost:21480"))->status(), 200);
    EXPECT_EQ(exchange(post("/module/echo/restart", "http://evil.example"))->status(), 403);
    EXPECT_TRUE(restarts.empty());
}

TEST_F(WebConsole, ConnectionsBeyondTheLimitAreAnsweredBusy) {
    std::vector<std::unique_ptr<HttpClient>> held;
    for (std::size_t i = 0; i < nxahost::WebConsole::kMaxConnections; ++i) {
        held.push_back(std::make_unique<HttpClient>());
        held.back()->send(get("/status.json"));
        ASSERT_TRUE(turnUntil([&] { return held.back()->complete(); })) << i;
        ASSERT_EQ(held.back()->status(), 200) << i;
    }
    auto busy = exchange(get("/status.json"));
    EXPECT_EQ(busy->status(), 503);
    EXPECT_NE(busy->body().find("too many browser connections: at most 64"), std::string::npos)
        << busy->text();
    held.clear();
    EXPECT_TRUE(turnUntil([&] {
        auto again = std::make_unique<HttpClient>();
        again->send(get("/status.json"));
        return turnUntil([&] { return again->complete(); }) && again->status() == 200;
    })) << "served again once they are gone";
}

TEST(WebPages, AreFoundWhereTheyAreAndNotElsewhere) {
    EXPECT_TRUE(nxahost::holdsWebPages(webRoot()));
    EXPECT_FALSE(nxahost::holdsWebPages("/nonexistent"));
}

}  // namespace
}  // namespace hosttest
