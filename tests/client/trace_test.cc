// The one trace frame shared by every component.
#include "trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "capture.h"

namespace {

using nxa::trace::kClient;
using nxa::trace::kModule;
using nxa::trace::kModules;
using nxa::trace::kPeer;

class TraceFrame : public ::testing::Test {
protected:
    void SetUp() override { saved_ = NXAClient::debug; }
    void TearDown() override { NXAClient::debug = saved_; }

private:
    unsigned saved_ = 0;
};

void writeEveryKind() {
    NXA_INFO(kClient, "totalram=", 17ul, " joblimit=", NXAClient::joblimit);
    NXA_WARNING(kModules, "number of modules exceeded");
    NXA_ERROR(kModule, "cannot find ", "name", " in ", "/x/Manifest");
    NXA_DEBUG(kModules, "before: #modules=", 3u);
    NXA_DETAIL(kPeer, "push: queue size=", 11u);
}

TEST_F(TraceFrame, LevelZeroWritesOnlyInfoWarningAndError) {
    NXAClient::debug = 0;
    nxatest::Capture out;
    writeEveryKind();
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::writeEveryKind() totalram=17 joblimit=536870912\n"
              "[WARNING] NXAModules::writeEveryKind() number of modules exceeded\n"
              "[ERROR] NXAModule::writeEveryKind() cannot find name in /x/Manifest\n");
}

TEST_F(TraceFrame, LevelOneAddsDebugLinesButNotDetailedOnes) {
    NXAClient::debug = 1;
    nxatest::Capture out;
    writeEveryKind();
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::writeEveryKind() totalram=17 joblimit=536870912\n"
              "[WARNING] NXAModules::writeEveryKind() number of modules exceeded\n"
              "[ERROR] NXAModule::writeEveryKind() cannot find name in /x/Manifest\n"
              "[DEBUG] NXAModules::writeEveryKind() before: #modules=3\n");
}

TEST_F(TraceFrame, LevelTwoAndAboveAddDetailedLines) {
    for (unsigned level : {2u, 3u, 4000000000u}) {
        NXAClient::debug = level;
        nxatest::Capture out;
        writeEveryKind();
        EXPECT_EQ(out.text(),
                  "[INFO] NXAClient::writeEveryKind() totalram=17 joblimit=536870912\n"
                  "[WARNING] NXAModules::writeEveryKind() number of modules exceeded\n"
                  "[ERROR] NXAModule::writeEveryKind() cannot find name in /x/Manifest\n"
                  "[DEBUG] NXAModules::writeEveryKind() before: #modules=3\n"
                  "[DEBUG] NXAPeer::writeEveryKind() push: queue size=11\n")
            << "level " << level;
    }
}

TEST_F(TraceFrame, EachLineIsOnStandardOutputWhenTheCallReturns) {
    NXAClient::debug = 2;
    nxatest::Capture out;
    NXA_INFO(kClient, "a");
    EXPECT_EQ(out.textUnflushed(), "[INFO] NXAClient::TestBody() a\n");
    NXA_DEBUG(kModules, "b");
    EXPECT_EQ(out.textUnflushed(), "[INFO] NXAClient::TestBody() a\n[DEBUG] NXAModules::TestBody() b\n");
    NXA_DETAIL(kPeer, "c");
    EXPECT_EQ(
        out.textUnflushed(),
        "[INFO] NXAClient::TestBody() a\n[DEBUG] NXAModules::TestBody() b\n[DEBUG] NXAPeer::TestBody() c\n");
}

TEST_F(TraceFrame, PiecesAreStreamedAsTheyAre) {
    NXAClient::debug = 0;
    nxatest::Capture out;
    pid_t pid = -1;
    NXA_INFO(kModule, "pid=", pid, " size=", std::size_t{0}, " text", std::string(" and more"), ' ', 'x');
    EXPECT_EQ(out.text(), "[INFO] NXAModule::TestBody() pid=-1 size=0 text and more x\n");
}

struct Named {
    Named() { NXA_INFO(kModule, "made"); }
    ~Named() { NXA_INFO(kModule, "gone"); }
};

TEST_F(TraceFrame, ConstructorsAndDestructorsAreNamedAfterTheirClass) {
    nxatest::Capture out;
    { Named named; }
    EXPECT_EQ(out.text(), "[INFO] NXAModule::Named() made\n[INFO] NXAModule::~Named() gone\n");
}

int evaluations = 0;
int counted() {
    return ++evaluations;
}

TEST_F(TraceFrame, GuardedPiecesAreNotEvaluatedBelowTheirLevel) {
    nxatest::Capture out;
    evaluations = 0;
    NXAClient::debug = 0;
    NXA_DEBUG(kModules, counted());
    NXA_DETAIL(kModules, counted());
    NXAClient::debug = 1;
    NXA_DETAIL(kModules, counted());
    EXPECT_EQ(evaluations, 0);
    EXPECT_EQ(out.text(), "");
}

TEST_F(TraceFrame, GuardIsTestedBeforeTheLock) {
    NXAClient::debug = 0;
    std::unique_lock<std::mutex> held(LogUtil::logMutex);
    auto done = std::async(std::launch::async, [] {
        NXA_DEBUG(kModules, "never");
        NXA_DETAIL(kModules, "never");
    });
    EXPECT_EQ(done.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

TEST_F(TraceFrame, EveryLineTakesTheTraceLock) {
    NXAClient::debug = 1;
    nxatest::Capture out;
    std::unique_lock<std::mutex> held(LogUtil::logMutex);
    auto done = std::async(std::launch::async, [] { NXA_DEBUG(kModules, "waited"); });
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    held.unlock();
    done.get();
    EXPECT_EQ(out.text(), "[DEBUG] NXAModules::operator()() waited\n");
}

TEST_F(TraceFrame, LinesOfManyThreadsNeverInterleave) {
    NXAClient::debug = 1;
    nxatest::Capture out;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) NXA_DEBUG(kPeer, "thread ", t, " line ", i, " end");
        });
    }
    for (auto& t : threads) t.join();
    std::istringstream lines(out.text());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_TRUE(line.rfind("[DEBUG] NXAPeer::operator()() thread ", 0) == 0) << line;
        EXPECT_TRUE(line.size() > 4 && line.compare(line.size() - 4, 4, " end") == 0) << line;
    }
    EXPECT_EQ(count, 800);
}

TEST_F(TraceFrame, AnOpenLineContinuesWithTheNextLine) {
    nxatest::Capture out;
    nxa::trace::unterminated(std::cout, nxa::trace::kWarning, kClient, "unpack", "cannot unzip ", "a", " to ",
                             "b");
    EXPECT_EQ(out.textUnflushed(), "");
    NXA_INFO(kModules, "next");
    EXPECT_EQ(out.textUnflushed(),
              "[WARNING] NXAClient::unpack() cannot unzip a to b[INFO] NXAModules::TestBody() next\n");
}

TEST_F(TraceFrame, TheErrorReportOnStandardErrorEndsWithTheSystemText) {
    nxatest::CaptureBoth both;
    nxa::trace::lineWithError(ENOENT, nxa::trace::kError, kModule, "scan", "cannot parse ", "/m/Manifest",
                              ": ", "what");
    EXPECT_EQ(both.out.text(), "");
    EXPECT_EQ(both.err.text(),
              "[ERROR] NXAModule::scan() cannot parse /m/Manifest: whatNo such file or directory\n");
}

}  // namespace
