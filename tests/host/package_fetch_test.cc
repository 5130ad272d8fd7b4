// Bringing a desired package and its signature onto the device, against a
// real nginx.
#include <gtest/gtest.h>
#include <nxahost/package_fetch.h>

#include <random>

#include "drive_loop.h"
#include "fakes.h"
#include "package_server.h"
#include "shell.h"

namespace {

using namespace std::chrono_literals;
using nxahost::DesiredPackage;
using nxahost::PackageFetch;
using State = nxahost::PackageFetch::State;

std::string randomBytes(std::size_t count) {
    std::mt19937 random(11);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

class PackageFetchTest : public ::testing::Test {
protected:
    void SetUp() override {
        content_ = randomBytes(2 << 20);
        nxatest::writeFile(server_.files() + "/nxa.zip", content_);
        nxatest::writeFile(server_.files() + "/nxa.zip.minisig", "a signature\n");
        wanted_.deployment = "d1";
        wanted_.version = "1.2";
        wanted_.packageUrl = server_.url("nxa.zip");
        wanted_.signatureUrl = server_.url("nxa.zip.minisig");
        wanted_.sha256 = nxatest::shell("sha256sum " + server_.files() + "/nxa.zip").output.substr(0, 64);
        wanted_.size = content_.size();
        char pattern[] = "/tmp/nxa-fetch-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        top_ = pattern;
        folder_ = top_ + "/downloads";
        server_.start();
    }
    void TearDown() override { nxatest::shell("rm -rf " + top_); }

    std::string listing() const { return nxatest::shell("ls " + folder_ + " 2>&1").output; }
    bool toEnd(PackageFetch& fetch) {
        return hosttest::driveUntil(fetch, [&] { return fetch.state() != State::fetching; });
    }

    nxatest::PackageServer server_;
    hosttest::FakeClock clock_;
    hosttest::FakeJitter jitter_;
    std::string content_;
    DesiredPackage wanted_;
    std::string top_;
    std::string folder_;
};

TEST_F(PackageFetchTest, ThePackageThenItsSignatureArriveInFilesNamedByItsHash) {
    PackageFetch fetch(wanted_, folder_, "", clock_, jitter_);
    ASSERT_TRUE(toEnd(fetch));
    ASSERT_EQ(fetch.state(), State::fetched) << fetch.reason();
    EXPECT_EQ(fetch.packagePath(), folder_ + "/" + wanted_.sha256 + ".zip");
    EXPECT_EQ(fetch.signaturePath(), fetch.packagePath() + ".minisig");
    EXPECT_TRUE(nxatest::readFile(fetch.packagePath()) == content_);
    EXPECT_EQ(nxatest::readFile(fetch.signaturePath()), "a signature\n");
    EXPECT_EQ(listing(), wanted_.sha256 + ".zip\n" + wanted_.sha256 + ".zip.minisig\n");
    EXPECT_EQ(fetch.percent(), 100);
    EXPECT_EQ(fetch.reason(), "");
    EXPECT_EQ(server_.accessLog(), "200 \"-\" /nxa.zip\n200 \"-\" /nxa.zip.minisig\n");
}

TEST_F(PackageFetchTest, AnotherPackagesFilesAreRemovedAndWhatThisOneLeftIsResumed) {
    nxatest::shell("mkdir -p " + folder_);
    nxatest::writeFile(folder_ + "/" + std::string(64, 'b') + ".zip", "older");
    nxatest::writeFile(folder_ + "/" + std::string(64, 'b') + ".zip.minisig", "older");
    nxatest::writeFile(folder_ + "/" + wanted_.sha256 + ".zip", content_.substr(0, 1000));
    nxatest::writeFile(folder_ + "/" + wanted_.sha256 + ".zip.minisig", "cut sh");
    PackageFetch fetch(wanted_, folder_, "", clock_, jitter_);
    ASSERT_TRUE(toEnd(fetch));
    ASSERT_EQ(fetch.state(), State::fetched) << fetch.reason();
    EXPECT_EQ(listing(), wanted_.sha256 + ".zip\n" + wanted_.sha256 + ".zip.minisig\n");
    EXPECT_EQ(nxatest::readFile(fetch.signaturePath()), "a signature\n");
    EXPECT_EQ(server_.accessLog(), "206 \"bytes=1000-\" /nxa.zip\n200 \"-\" /nxa.zip.minisig\n");
}

TEST_F(PackageFetchTest, AMissingSignatureFailsAndLeavesNothing) {
    wanted_.signatureUrl = server_.url("missing.minisig");
    PackageFetch fetch(wanted_, folder_, "", clock_, jitter_);
    ASSERT_TRUE(toEnd(fetch));
    EXPECT_EQ(fetch.state(), State::failed);
    EXPECT_EQ(fetch.reason(), "its signature: HTTP 404 for " + wanted_.signatureUrl);
    EXPECT_EQ(listing(), "");
}

TEST_F(PackageFetchTest, ASignatureOver64KiBIsRefused) {
    nxatest::writeFile(server_.files() + "/nxa.zip.minisig", std::string(65 * 1024, 's'));
    PackageFetch fetch(wanted_, folder_, "", clock_, jitter_);
    ASSERT_TRUE(toEnd(fetch));
    EXPECT_EQ(fetch.state(), State::failed);
    EXPECT_EQ(fetch.reason(), "its signature: it is larger than the declared 65536 bytes");
    EXPECT_EQ(listing(), "");
}

TEST_F(PackageFetchTest, APackageThatIsNotTheDeclaredOneIsRefused) {
    wanted_.sha256 = std::string(64, 'c');
    PackageFetch fetch(wanted_, folder_, "", clock_, jitter_);
    ASSERT_TRUE(toEnd(fetch));
    EXPECT_EQ(fetch.state(), State::failed);
    EXPECT_EQ(fetch.reason().rfind("the package: its SHA-256 is ", 0), 0u) << fetch.reason();
    EXPECT_EQ(listing(), "");
    EXPECT_EQ(server_.accessLog(), "200 \"-\" /nxa.zip\n");
}

TEST_F(PackageFetchTest, ThePercentageClimbsWhileTheServerIsSlow) {
    wanted_.packageUrl = server_.url("slow/nxa.zip");
    PackageFetch fetch(wanted_, folder_, "", clock_, jitter_);
    ASSERT_TRUE(hosttest::driveUntil(fetch, [&] { return fetch.percent() >= 10; }));
    EXPECT_EQ(fetch.state(), State::fetching);
    EXPECT_LT(fetch.percent(), 100);
    ASSERT_TRUE(toEnd(fetch));
    EXPECT_EQ(fetch.state(), State::fetched) << fetch.reason();
}

}  // namespace
