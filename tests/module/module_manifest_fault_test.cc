// Module::scan when reading the manifest fails with an exception that is
// neither a stream failure nor a VLException, such as running out of memory:
// the catch-all reports it with its fixed (misspelt) text and refuses the
// module. The binary's own IniParser constructor replaces the platform's and
// forwards to it unless a test names a manifest that is to fail.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/ini_parser.h>

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "capture.h"
#include "interpose.h"
#include "module_harness.h"
#include "package_builder.h"
#include "sandbox.h"

namespace fault {

// The manifest whose reading throws, and what it throws.
std::string failingPath;
std::function<void()> raise;
// How often the constructor was asked to read each manifest.
std::vector<std::string> reads;

}  // namespace fault

IniParser::IniParser(std::string const& path, unsigned debug) {
    using Real = void (*)(IniParser*, std::string const&, unsigned);
    static auto next = nxatest::nextDefinition<Real>(
        "_ZN9IniParserC1ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEj");
    fault::reads.push_back(path);
    if (path == fault::failingPath) fault::raise();
    // The platform's parser, made beside this one, hands its entries over.
    alignas(IniParser) unsigned char storage[sizeof(IniParser)];
    auto* real = reinterpret_cast<IniParser*>(storage);
    next(real, path, debug);
    values_ = std::move(real->values_);
    real->~IniParser();
}

namespace {

using nxamodtest::writeManifest;

constexpr char kDir[] = "/var/opt/velmora/modules";
// Where the facade of the last test looks for the package and installs it.
constexpr char kPackageDir[] = "/var/opt/velmora/pkg";
constexpr char kModulesDir[] = "/var/opt/velmora/nxa";
constexpr unsigned short kPort = 20100;
constexpr char kUnkown[] = "[ERROR] NXAModule::scan() unkown exception\n";

std::string manifest(std::string const& name) {
    return "name\t\t=\t" + name + "\nversion\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\tnoarch\n";
}

std::string manifestPath(std::string const& dir, std::string const& name) {
    return dir + "/" + name + "/Manifest";
}

std::string manifestPath(std::string const& name) {
    return manifestPath(kDir, name);
}

// client.run(). A forked copy of this process that leaves run() by an
// exception (its module's program could not be started) ends at once.
void runClient(NXAClient& client) {
    pid_t const self = ::getpid();
    try {
        client.run();
    } catch (...) {
        if (::getpid() != self) ::_exit(nxamodtest::kChildCopyFailed);
        throw;
    }
}

class ModuleManifestFault : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
        fault::failingPath.clear();
        fault::raise = nullptr;
        fault::reads.clear();
    }
    void TearDown() override {
        fault::failingPath.clear();
        NXAClient::debug = 0;
    }

    // Reading the manifest of `name` in `dir` throws what `raise` throws.
    static void failReading(std::string const& dir, std::string const& name, std::function<void()> raise) {
        fault::failingPath = manifestPath(dir, name);
        fault::raise = std::move(raise);
    }
    static void failReading(std::string const& name, std::function<void()> raise) {
        failReading(kDir, name, std::move(raise));
    }

    Proc proc{::getpid()};
};

TEST_F(ModuleManifestFault, UnfailedManifestIsReadByThePlatformsParser) {
    writeManifest(kDir, "foo", manifest("foo"));
    NXAClient::Module module("foo", kPort, proc);
    nxatest::CaptureBoth capture;
    EXPECT_TRUE(module.scan(kDir, "x86_64"));
    EXPECT_EQ(capture.out.release(), "");
    EXPECT_EQ(capture.err.release(), "");
    EXPECT_EQ(fault::reads, std::vector<std::string>{manifestPath("foo")});
}

TEST_F(ModuleManifestFault, OutOfMemoryIsAnUnkownExceptionAndRefusesTheModule) {
    writeManifest(kDir, "foo", manifest("foo"));
    NXAClient::Module module("foo", kPort, proc);
    failReading("foo", [] { throw std::bad_alloc(); });
    nxatest::CaptureBoth capture;
    EXPECT_FALSE(module.scan(kDir, "x86_64"));
    EXPECT_EQ(capture.out.release(), kUnkown);
    EXPECT_EQ(capture.err.release(), "");
    EXPECT_EQ(fault::reads, std::vector<std::string>{manifestPath("foo")});
}

TEST_F(ModuleManifestFault, AStandardErrorOfAnotherKindIsAnUnkownExceptionToo) {
    writeManifest(kDir, "foo", manifest("foo"));
    NXAClient::Module module("foo", kPort, proc);
    failReading("foo", [] { throw std::runtime_error("cannot parse this"); });
    nxatest::CaptureBoth capture;
    EXPECT_FALSE(module.scan(kDir, "x86_64"));
    EXPECT_EQ(capture.out.release(), kUnkown);
    EXPECT_EQ(capture.err.release(), "");
}

TEST_F(ModuleManifestFault, AThrownValueThatIsNoExceptionClassIsAnUnkownExceptionToo) {
    writeManifest(kDir, "foo", manifest("foo"));
    NXAClient::Module module("foo", kPort, proc);
    failReading("foo", [] { throw 42; });
    nxatest::CaptureBoth capture;
    EXPECT_FALSE(module.scan(kDir, "x86_64"));
    EXPECT_EQ(capture.out.release(), kUnkown);
    EXPECT_EQ(capture.err.release(), "");
}

TEST_F(ModuleManifestFault, TheRegistryDropsThatModuleAndKeepsTheOthers) {
    writeManifest(kDir, "foo", manifest("foo"));
    writeManifest(kDir, "bar", manifest("bar"));
    NXAClient::Modules modules(kPort, 4);
    {
        nxatest::Capture quiet;
        modules.configure({"foo", "bar"});
    }
    failReading("foo", [] { throw 42; });
    nxatest::CaptureBoth capture;
    modules.scan(kDir);
    EXPECT_EQ(capture.out.release(), kUnkown);
    EXPECT_EQ(capture.err.release(), "");
    EXPECT_EQ(modules.getModuleNames(), std::vector<std::string>{"bar"});
    EXPECT_EQ(fault::reads, (std::vector<std::string>{manifestPath("foo"), manifestPath("bar")}));
}

// The host's path: run() installs the package, whose check of foo's manifest
// fails with a value of no exception class; foo is dropped, bar is started.
TEST_F(ModuleManifestFault, TheFacadesRunDropsThatModuleAndStartsTheOthers) {
    nxaclienttest::TempDir staging;
    nxaclienttest::makeModuleZip(staging.path(), "foo", "noarch");
    nxaclienttest::makeModuleZip(staging.path(), "bar", "noarch");
    ::mkdir(kPackageDir, 0755);
    ::mkdir(kModulesDir, 0755);
    nxaclienttest::makePackage(staging.path(), std::string(kPackageDir) + "/nxa.zip", {"foo.zip", "bar.zip"});
    std::unique_ptr<NXAClient> client;
    {
        nxatest::Capture quiet;
        client = std::make_unique<NXAClient>(kPackageDir, kModulesDir, "/var/opt/velmora/work", 0, kPort, 4,
                                             "", 0);
        client->modules.configure({"foo", "bar"});
    }
    failReading(std::string(kModulesDir), "foo", [] { throw 42; });
    nxatest::CaptureBoth capture;
    runClient(*client);
    EXPECT_EQ(
        capture.out.release(),
        "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n" + std::string(kUnkown));
    EXPECT_EQ(capture.err.release(), "");
    EXPECT_EQ(client->getModulesInstalled(), std::vector<std::string>{"bar"});
    NXAClient::Module const* bar = client->modules.find("bar");
    ASSERT_NE(bar, nullptr);
    EXPECT_GT(bar->getChildPid(), 0);
    EXPECT_EQ(fault::reads,
              (std::vector<std::string>{manifestPath(kModulesDir, "foo"), manifestPath(kModulesDir, "bar")}));
}

}  // namespace
