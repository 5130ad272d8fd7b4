// Downloads against a real nginx, over HTTP and HTTPS with a CA made for the
// test: whole files, files resumed after the server went away or from what
// an earlier run left, retries with back-off by a clock the test moves, and
// what is refused (other CAs, other schemes, wrong sizes and hashes, 404).
#include <gtest/gtest.h>
#include <nxahost/download.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>

#include <fstream>
#include <random>

#include "drive_loop.h"
#include "fakes.h"
#include "package_server.h"
#include "shell.h"

namespace {

using namespace std::chrono_literals;
using nxahost::Download;
using nxahost::DownloadRequest;
using State = nxahost::Download::State;
using hosttest::driveUntil;

std::string randomBytes(std::size_t count) {
    std::mt19937 random(7);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

std::string sha256Of(std::string const& path) {
    nxatest::ShellResult const result = nxatest::shell("sha256sum " + path + " | cut -d' ' -f1");
    return result.output.substr(0, 64);
}

bool exists(std::string const& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

bool driveToEnd(Download& download, std::chrono::seconds limit = 20s) {
    return driveUntil(
        download, [&] { return download.state() == State::done || download.state() == State::failed; },
        limit);
}

class DownloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        content_ = randomBytes(3 << 20);
        nxatest::writeFile(server_.files() + "/package.zip", content_);
        sha256_ = sha256Of(server_.files() + "/package.zip");
        char pattern[] = "/tmp/nxa-download-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        target_ = dir_ + "/package.zip";
    }
    void TearDown() override { nxatest::shell("rm -rf " + dir_); }

    DownloadRequest request(std::string const& path, bool tls = false) const {
        DownloadRequest wanted;
        wanted.url = server_.url(path, tls);
        wanted.path = target_;
        wanted.size = content_.size();
        wanted.sha256 = sha256_;
        if (tls) wanted.caFile = server_.caFile();
        return wanted;
    }
    // Waits for `download` to end; expects it done with the whole file.
    void expectWholeFile(Download& download) {
        ASSERT_TRUE(driveToEnd(download)) << download.reason();
        EXPECT_EQ(download.state(), State::done) << download.reason();
        EXPECT_EQ(download.received(), content_.size());
        EXPECT_TRUE(nxatest::readFile(target_) == content_);
    }

    nxatest::PackageServer server_;
    hosttest::FakeClock clock_;
    hosttest::FakeJitter jitter_;
    std::string content_;
    std::string sha256_;
    std::string dir_;
    std::string target_;
};

TEST_F(DownloadTest, OverHttpTheWholeFileArrivesWithItsHashAndNoDescriptorIsLeft) {
    server_.start();
    int const before = nxatest::openDescriptorCount();
    {
        Download download(request("package.zip"), clock_, jitter_);
        expectWholeFile(download);
        EXPECT_EQ(download.attempts(), 1);
    }
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
    EXPECT_EQ(server_.accessLog(), "200 \"-\" /package.zip\n");
}

TEST_F(DownloadTest, OverHttpsTheServerIsCheckedAgainstTheGivenCa) {
    server_.start();
    Download download(request("package.zip", true), clock_, jitter_);
    expectWholeFile(download);
}

TEST_F(DownloadTest, ACertificateFromAnotherCaIsRefusedAndNothingIsKept) {
    server_.start();
    DownloadRequest wanted = request("package.zip", true);
    wanted.caFile = server_.otherCaFile();
    Download download(wanted, clock_, jitter_);
    ASSERT_TRUE(driveToEnd(download));
    EXPECT_EQ(download.state(), State::failed);
    EXPECT_NE(download.reason().find("SSL certificate problem"), std::string::npos) << download.reason();
    EXPECT_EQ(download.attempts(), 1);
    EXPECT_FALSE(exists(target_));
    EXPECT_EQ(server_.accessLog(), "");
}

TEST_F(DownloadTest, WithoutACaFileTheSystemStoreDoesNotTrustTheTestCa) {
    server_.start();
    DownloadRequest wanted = request("package.zip", true);
    wanted.caFile.clear();
    Download download(wanted, clock_, jitter_);
    ASSERT_TRUE(driveToEnd(download));
    EXPECT_EQ(download.state(), State::failed);
    EXPECT_NE(download.reason().find("SSL certificate problem"), std::string::npos) << download.reason();
}

TEST_F(DownloadTest, AnotherSha256IsRefusedAndTheFileRemoved) {
    server_.start();
    DownloadRequest wanted = request("package.zip");
    wanted.sha256 = std::string(64, '0');
    Download download(wanted, clock_, jitter_);
    ASSERT_TRUE(driveToEnd(download));
    EXPECT_EQ(download.state(), State::failed);
    EXPECT_EQ(download.reason(), "its SHA-256 is " + sha256_ + ", not the declared " + wanted.sha256);
    EXPECT_FALSE(exists(target_));
}

TEST_F(DownloadTest, AFileLargerThanDeclaredIsCutAtTheDeclaredSizeAndRefused) {
    server_.start();
    DownloadRequest wanted = request("package.zip");
    wanted.size = content_.size() - 1000;
    Download download(wanted, clock_, jitter_);
    ASSERT_TRUE(driveToEnd(download));
    EXPECT_EQ(download.state(), State::failed);
    EXPECT_EQ(download.reason(), "it is larger than the declared " + std::to_string(wanted.size) + " bytes");
    EXPECT_FALSE(exists(target_));
}

TEST_F(DownloadTest, AFileShorterThanDeclaredIsRefused) {
    server_.start();
    DownloadRequest wanted = request("package.zip");
    wanted.size = content_.size() + 1;
    Download download(wanted, clock_, jitter_);
    ASSERT_TRUE(driveToEnd(download));
    EXPECT_EQ(download.state(), State::failed);
    EXPECT_EQ(download.reason(), "it has " + std::to_string(content_.size()) + " bytes, not the declared " +
                                     std::to_string(wanted.size));
}

TEST_F(DownloadTest, NotFoundFailsAtOnceWithoutRetrying) {
    server_.start();
    DownloadRequest wanted = request("missing.zip");
    Download download(wanted, clock_, jitter_);
    ASSERT_TRUE(driveToEnd(download));
    EXPECT_EQ(download.state(), State::failed);
    EXPECT_EQ(download.reason(), "HTTP 404 for " + wanted.url);
    EXPECT_EQ(download.attempts(), 1);
    EXPECT_FALSE(exists(target_));
}

TEST_F(DownloadTest, OnlyHttpAndHttpsAreFetched) {
    for (std::string const url : {"file:///etc/hostname", "ftp://127.0.0.1/package.zip"}) {
        DownloadRequest wanted = request("package.zip");
        wanted.url = url;
        Download download(wanted, clock_, jitter_);
        ASSERT_TRUE(driveToEnd(download)) << url;
        EXPECT_EQ(download.state(), State::failed) << url;
        EXPECT_NE(download.reason().find("not supported"), std::string::npos) << download.reason();
        EXPECT_FALSE(exists(target_));
    }
}

TEST_F(DownloadTest, AnUnreachableServerIsTriedAgainAfterOneThenTwoSecondsUntilItAnswers) {
    Download download(request("package.zip"), clock_, jitter_);
    ASSERT_TRUE(driveUntil(download, [&] { return download.state() == State::waiting; }));
    EXPECT_NE(download.reason().find("Failed to connect"), std::string::npos) << download.reason();
    EXPECT_EQ(*download.retryAt() - clock_.now(), 1s);
    clock_.advance(1s);
    ASSERT_TRUE(
        driveUntil(download, [&] { return download.attempts() == 2 && download.state() == State::waiting; }));
    EXPECT_EQ(*download.retryAt() - clock_.now(), 2s);
    // The wait the loop is given is the time to the retry.
    FdSet rd, wr;
    EXPECT_EQ(download.addFds(rd, wr, -1), 2000);
    server_.start();
    clock_.advance(2s);
    expectWholeFile(download);
    EXPECT_EQ(download.attempts(), 3);
}

TEST_F(DownloadTest, AServerStoppedInTheMiddleIsResumedWithARangeRequest) {
    server_.start();
    Download download(request("slow/package.zip"), clock_, jitter_);
    ASSERT_TRUE(driveUntil(download, [&] { return download.received() >= 512u << 10; }));
    server_.stop();
    ASSERT_TRUE(driveUntil(download, [&] { return download.state() == State::waiting; }));
    std::uint64_t const kept = download.received();
    EXPECT_GT(kept, 0u);
    EXPECT_LT(kept, content_.size());
    EXPECT_EQ(nxatest::readFile(target_), content_.substr(0, kept));
    server_.start();
    clock_.advance(1s);
    expectWholeFile(download);
    EXPECT_NE(server_.accessLog().find("206 \"bytes=" + std::to_string(kept) + "-\" /slow/package.zip\n"),
              std::string::npos)
        << server_.accessLog();
}

TEST_F(DownloadTest, WhatAnEarlierRunLeftIsResumed) {
    nxatest::writeFile(target_, content_.substr(0, 1 << 20));
    server_.start();
    Download download(request("package.zip"), clock_, jitter_);
    expectWholeFile(download);
    EXPECT_EQ(server_.accessLog(), "206 \"bytes=1048576-\" /package.zip\n");
}

TEST_F(DownloadTest, AServerThatIgnoresTheRangeSendsTheWholeFileWhichIsBegunAgain) {
    nxatest::writeFile(target_, std::string(1 << 20, 'x'));
    server_.start();
    Download download(request("norange/package.zip"), clock_, jitter_);
    expectWholeFile(download);
    EXPECT_EQ(server_.accessLog(), "200 \"bytes=1048576-\" /norange/package.zip\n");
}

TEST_F(DownloadTest, AWholeFileFromAnEarlierRunIsCheckedWithoutAsking) {
    nxatest::writeFile(target_, content_);
    server_.start();
    Download download(request("package.zip"), clock_, jitter_);
    EXPECT_EQ(download.state(), State::done);
    EXPECT_EQ(server_.accessLog(), "");
}

TEST_F(DownloadTest, AWholeFileFromAnEarlierRunWithAnotherHashIsFetchedAgain) {
    nxatest::writeFile(target_, std::string(content_.size(), 'x'));
    server_.start();
    Download download(request("package.zip"), clock_, jitter_);
    expectWholeFile(download);
    EXPECT_EQ(server_.accessLog(), "200 \"-\" /package.zip\n");
}

}  // namespace
