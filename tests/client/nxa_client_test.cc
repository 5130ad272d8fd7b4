// The facade: construction, the trace level it sets, and its forwarding.
#include <gtest/gtest.h>

#include <stdexcept>

#include "capture.h"
#include "nxaclient.h"

// The machine's memory as the tests want it: interposed for the library.
static unsigned long fakeRam = 0;
unsigned long getTotalRam() {
    return fakeRam;
}

namespace {

class Facade : public ::testing::Test {
protected:
    void SetUp() override { fakeRam = 1073741824ul; }
};

TEST_F(Facade, ConstructorWritesTheMemoryLineAtEveryLevel) {
    for (unsigned level : {0u, 1u, 2u}) {
        fakeRam = 536870911ul + level;
        nxatest::Capture out;
        NXAClient client("/p", "/m", "/w", 0, 20100, 16, "", level);
        EXPECT_EQ(out.text(), "[INFO] NXAClient::NXAClient() totalram=" + std::to_string(fakeRam) +
                                  " joblimit=536870912\n");
    }
}

// The job limit is one constant, 512 MiB, and the memory line shows it as it
// is, whatever the memory: below the limit, at it, and far above it, where a
// limit worked out from the memory would come out larger.
TEST_F(Facade, JobLimitIsAConstant) {
    EXPECT_EQ(NXAClient::joblimit, 536870912ul);
    for (unsigned long ram : {0ul, 536870911ul, 536870912ul, 64ul << 30, 256ul << 30}) {
        fakeRam = ram;
        nxatest::Capture out;
        NXAClient client("/p", "/m", "/w", 0, 20100, 16, "", 0);
        EXPECT_EQ(out.text(),
                  "[INFO] NXAClient::NXAClient() totalram=" + std::to_string(ram) + " joblimit=536870912\n");
    }
}

TEST_F(Facade, ConstructorSetsTheProcessWideLevel) {
    nxatest::Capture out;
    NXAClient first("/p", "/m", "/w", 0, 20100, 16, "", 2);
    EXPECT_EQ(NXAClient::debug, 2u);
    NXAClient second("/p", "/m", "/w", 0, 20100, 16, "", 0);
    EXPECT_EQ(NXAClient::debug, 0u);
}

TEST_F(Facade, LevelZeroLifeWritesExactlyOneLine) {
    nxatest::Capture out;
    {
        NXAClient client("/p", "/m", "/w", 0, 20100, 16, "spare", 0);
        client.modules.configure({});
        client.run();
        std::string log = "old";
        client.getRunLog(log);
        EXPECT_EQ(log, "");
        client.stop();
    }
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::NXAClient() totalram=1073741824 joblimit=536870912\n"
              "[INFO] NXAClient::unpack() no modules configured, ignore not existing /p/nxa.zip\n");
}

TEST_F(Facade, LevelOneLifeTracesTheRegistry) {
    nxatest::Capture out;
    {
        NXAClient client("/p", "/m", "/w", 0, 20100, 16, "", 1);
        client.modules.configure({});
        client.stop();
    }
    std::string pid = std::to_string(getpid());
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::NXAClient() totalram=1073741824 joblimit=536870912\n"
              "[DEBUG] NXAModules::configure() #modulenames=0\n"
              "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  "\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  " done\n"
                  "[DEBUG] NXAModules::configure() #modules=0 done\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  "\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  " done\n"
                  // the facade's destructor stops, then the registry's destructor stops again
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  "\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  " done\n"
                  "[DEBUG] NXAModules::~Modules() pid=" +
                  pid +
                  "\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  "\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid +
                  " done\n"
                  "[DEBUG] NXAModules::~Modules() pid=" +
                  pid + " done\n");
}

TEST_F(Facade, NullDirectoriesAreRefused) {
    char const* good = "/x";
    char const* cases[3][3] = {{nullptr, good, good}, {good, nullptr, good}, {good, good, nullptr}};
    for (auto& args : cases) {
        nxatest::Capture out;
        try {
            NXAClient client(args[0], args[1], args[2], 0, 20100, 16, "", 0);
            ADD_FAILURE() << "no exception";
        } catch (std::logic_error const& e) {
            EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
        }
        EXPECT_EQ(out.text(), "");
    }
}

TEST_F(Facade, FourthArgumentHasNoEffect) {
    std::string texts[2];
    unsigned long values[2] = {0ul, ~0ul};
    for (int i = 0; i < 2; ++i) {
        nxatest::Capture out;
        {
            NXAClient client("/p", "/m", "/w", values[i], 20100, 16, "", 0);
            client.modules.configure({});
            client.run();
            EXPECT_TRUE(client.getModulesInstalled().empty());
        }
        texts[i] = out.text();
    }
    EXPECT_EQ(texts[0], texts[1]);
}

TEST_F(Facade, ForwardsPollingToAnEmptyRegistry) {
    nxatest::Capture out;
    NXAClient client("/p", "/m", "/w", 0, 20100, 16, "", 0);
    FdSet rd, wr;
    client.addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);
    EXPECT_EQ(wr.count(), 0);
    client.handleInput(rd);
    client.handleOutput(wr);
    SystemMessage start;
    start.setKind(4);
    start.setText("71-NXAStartOutput");
    EXPECT_TRUE(client.handle(RouterMessage("viewer", start.clone())));
    EXPECT_FALSE(client.handle(RouterMessage("viewer", nullptr)));
}

}  // namespace
