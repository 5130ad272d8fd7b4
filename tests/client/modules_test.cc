// The module registry: configuration with ports and limit, and the manifest scan.
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "capture.h"
#include "interpose.h"
#include "registry_fixture.h"

// The machine name the tests want uname to report ("" keeps the real one), or
// a failure with an error number.
namespace {
std::string fakeMachine;
int unameErrno = 0;
int ptyCalls = 0;
int failPtyAtCall = 0;
}  // namespace

extern "C" int uname(struct utsname* out) {
    if (unameErrno != 0) {
        errno = unameErrno;
        return -1;
    }
    using Real = int (*)(struct utsname*);
    static Real real = nxatest::nextDefinition<Real>("uname");
    int result = real(out);
    if (result == 0 && !fakeMachine.empty()) {
        std::strncpy(out->machine, fakeMachine.c_str(), sizeof out->machine - 1);
        out->machine[sizeof out->machine - 1] = '\0';
    }
    return result;
}

int openPtyPair(int& master, int& slave, int flags) {
    using Real = int (*)(int&, int&, int);
    static Real real = nxatest::nextDefinition<Real>("_Z11openPtyPairRiS_i");
    if (++ptyCalls == failPtyAtCall) {
        errno = ENXIO;
        return -1;
    }
    return real(master, slave, flags);
}

namespace {

using nxaclienttest::boundPort;
using nxaclienttest::installModule;
using nxaclienttest::kConnected;
using Names = std::vector<std::string>;

class Registry : public nxaclienttest::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        fakeMachine.clear();
        unameErrno = 0;
        ptyCalls = 0;
        failPtyAtCall = 0;
    }
    static std::vector<std::unique_ptr<NXAClient::Module>>& list(NXAClient::Modules& m) {
        return NXATestAccess::list(m);
    }
    static std::string pid() { return std::to_string(getpid()); }
};

TEST_F(Registry, ConstructionCreatesNoModuleAndWritesNothing) {
    nxatest::Capture out;
    NXAClient::debug = 2;
    NXAClient::Modules modules(21000, 3);
    EXPECT_TRUE(modules.getModuleNames().empty());
    EXPECT_TRUE(NXATestAccess::proc(modules).children().empty());
    EXPECT_EQ(NXATestAccess::proc(modules).self(), getpid());
    EXPECT_EQ(out.text(), "");
}

TEST_F(Registry, ModulesBeyondTheLimitAreWarnedAboutAndSkipped) {
    NXAClient::Modules modules(21000, 3);
    nxatest::Capture out;
    modules.configure({"a", "b", "c", "d", "e"});
    EXPECT_EQ(out.text(), std::string(kConnected) + kConnected + kConnected +
                              "[WARNING] NXAModules::configure() number of modules exceeded\n"
                              "[WARNING] NXAModules::configure() number of modules exceeded\n");
    EXPECT_EQ(modules.getModuleNames(), (Names{"a", "b", "c"}));
    ASSERT_EQ(list(modules).size(), 3u);
    EXPECT_EQ(boundPort(*list(modules)[0]), 21000);
    EXPECT_EQ(boundPort(*list(modules)[1]), 21001);
    EXPECT_EQ(boundPort(*list(modules)[2]), 21002);
}

TEST_F(Registry, ConfigureTracesTheCountsAtLevelOne) {
    NXAClient::Modules modules(21000, 1);
    NXAClient::debug = 1;
    nxatest::Capture out;
    modules.configure({"a", "b"});
    std::string const text = out.text();
    EXPECT_EQ(text.rfind("[DEBUG] NXAModules::configure() #modulenames=2\n"
                         "[DEBUG] NXAModules::stop() pid=" +
                             pid() +
                             "\n"
                             "[DEBUG] NXAModules::stop() pid=" +
                             pid() + " done\n",
                         0),
              0u)
        << text;
    std::string const tail =
        "[WARNING] NXAModules::configure() number of modules exceeded\n"
        "[DEBUG] NXAModules::configure() #modules=1 done\n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
}

TEST_F(Registry, LimitZeroMakesNoModule) {
    NXAClient::Modules modules(21000, 0);
    NXAClient::debug = 1;
    nxatest::Capture out;
    modules.configure({"a", "b"});
    EXPECT_EQ(out.text(),
              "[DEBUG] NXAModules::configure() #modulenames=2\n"
              "[DEBUG] NXAModules::stop() pid=" +
                  pid() +
                  "\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  pid() +
                  " done\n"
                  "[WARNING] NXAModules::configure() number of modules exceeded\n"
                  "[WARNING] NXAModules::configure() number of modules exceeded\n"
                  "[DEBUG] NXAModules::configure() #modules=0 done\n");
    EXPECT_TRUE(modules.getModuleNames().empty());
}

TEST_F(Registry, AnEmptyListRemovesEveryModule) {
    NXAClient::Modules modules(21000, 4);
    nxatest::Capture out;
    modules.configure({"a", "b"});
    modules.configure({});
    EXPECT_TRUE(modules.getModuleNames().empty());
    EXPECT_TRUE(list(modules).empty());
}

TEST_F(Registry, ConfiguringAgainFreesThePortsFirst) {
    NXAClient::Modules modules(21000, 4);
    nxatest::Capture out;
    modules.configure({"a", "b"});
    modules.configure({"c", "d"});
    EXPECT_EQ(out.text(), std::string(kConnected) + kConnected + kConnected + kConnected);
    EXPECT_EQ(modules.getModuleNames(), (Names{"c", "d"}));
    EXPECT_EQ(boundPort(*list(modules)[0]), 21000);
    EXPECT_EQ(boundPort(*list(modules)[1]), 21001);
}

TEST_F(Registry, NamesAreTakenAsTheyAre) {
    NXAClient::Modules modules(21000, 8);
    nxatest::Capture out;
    modules.configure({"", "a/b", "twice", "twice"});
    EXPECT_EQ(modules.getModuleNames(), (Names{"", "a/b", "twice", "twice"}));
    EXPECT_EQ(boundPort(*list(modules)[2]), 21002);
    EXPECT_EQ(boundPort(*list(modules)[3]), 21003);
}

TEST_F(Registry, PortsWrapAfter65535) {
    NXAClient::Modules modules(65535, 4);
    NXAClient::debug = 2;
    nxatest::Capture out;
    modules.configure({"a", "b"});
    std::string const text = out.text();
    EXPECT_NE(text.find("[DEBUG] NXAModule::Module() serveraddr=0.0.0.0:65535\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[DEBUG] NXAModule::Module() serveraddr=0.0.0.0:0\n"), std::string::npos) << text;
    EXPECT_EQ(boundPort(*list(modules)[0]), 65535);
    // Port 0 asks the system for any free port.
    EXPECT_NE(boundPort(*list(modules)[1]), 0);
    EXPECT_NE(boundPort(*list(modules)[1]), 65535);
}

TEST_F(Registry, AFailingModuleLeavesTheEarlierOnesAndSkipsTheRest) {
    NXAClient::Modules modules(21000, 8);
    NXAClient::debug = 1;
    failPtyAtCall = 2;
    nxatest::Capture out;
    try {
        modules.configure({"a", "b", "c"});
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "cannot open PTY pair: No such device or address");
        EXPECT_EQ(e.code().value(), ENXIO);
    }
    EXPECT_EQ(modules.getModuleNames(), Names{"a"});
    EXPECT_EQ(boundPort(*list(modules)[0]), 21000);
    EXPECT_EQ(out.text().find("#modules="), std::string::npos);
}

TEST_F(Registry, ScanKeepsTheModulesThatFitTheMachineWithTheirPorts) {
    installModule("any", "noarch");
    installModule("wide", "x86_64");
    installModule("old", "i586");
    NXAClient::Modules modules(21000, 8);
    {
        nxatest::Capture quiet;
        modules.configure({"any", "wide", "old"});
    }
    fakeMachine = "i686";
    NXAClient::debug = 1;
    nxatest::Capture out;
    modules.scan(nxaclienttest::kModulesDir);
    EXPECT_EQ(modules.getModuleNames(), (Names{"any", "old"}));
    EXPECT_EQ(boundPort(*list(modules)[0]), 21000);
    EXPECT_EQ(boundPort(*list(modules)[1]), 21002);
    std::string const text = out.text();
    EXPECT_EQ(text.rfind("[DEBUG] NXAModules::scan() before: #modules=3\n"
                         "[DEBUG] NXAModules::scan() machine=i686\n",
                         0),
              0u)
        << text;
    std::string const tail = "[DEBUG] NXAModules::scan() after: #modules=2\n";
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
}

TEST_F(Registry, ScanOnTheRealMachineDropsEveryNarrowArchitecture) {
    installModule("any", "noarch");
    installModule("wide", "x86_64");
    NXAClient::Modules modules(21000, 8);
    nxatest::Capture out;
    modules.configure({"any", "wide"});
    modules.scan(nxaclienttest::kModulesDir);
    EXPECT_EQ(modules.getModuleNames(), Names{"any"});
}

TEST_F(Registry, ScanFailsWhenTheMachineCannotBeRead) {
    installModule("any", "noarch");
    NXAClient::Modules modules(21000, 8);
    {
        nxatest::Capture quiet;
        modules.configure({"any"});
    }
    NXAClient::debug = 1;
    unameErrno = EFAULT;
    nxatest::Capture out;
    try {
        modules.scan(nxaclienttest::kModulesDir);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "cannot get architecture from system: Bad address");
        EXPECT_EQ(e.code().value(), EFAULT);
    }
    EXPECT_EQ(out.text(), "[DEBUG] NXAModules::scan() before: #modules=1\n");
    EXPECT_EQ(modules.getModuleNames(), Names{"any"});
}

TEST_F(Registry, AMissingManifestEndsTheScan) {
    installModule("any", "noarch");
    NXAClient::Modules modules(21000, 8);
    {
        nxatest::Capture quiet;
        modules.configure({"any", "ghost", "later"});
    }
    NXAClient::debug = 1;
    nxatest::Capture out;
    try {
        modules.scan(nxaclienttest::kModulesDir);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "/var/opt/velmora/nxa/ghost/Manifest: No such file or directory");
    }
    EXPECT_EQ(out.text().find("after: #modules="), std::string::npos) << out.text();
}

TEST_F(Registry, ModuleNamesOfAnEmptyRegistry) {
    NXAClient::Modules modules(21000, 8);
    EXPECT_TRUE(modules.getModuleNames().empty());
}

}  // namespace
