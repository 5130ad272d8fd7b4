// Installation of the module package into the modules directory.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vlplatform/fs.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "capture.h"
#include "interpose.h"
#include "nxaclient.h"
#include "package_builder.h"
#include "sandbox.h"
#include "shell.h"

// Faults the tests arm: the platform's rmDir and the system's opendir fail
// for one path with a chosen error number.
namespace {
std::string failingRmDirPath;
int failingRmDirErrno = 0;
std::string failingOpendirPath;
}  // namespace

int rmDir(std::string const& path, bool removeTop) {
    if (!failingRmDirPath.empty() && path == failingRmDirPath) {
        errno = failingRmDirErrno;
        return -1;
    }
    using Real = int (*)(std::string const&, bool);
    static Real real =
        nxatest::nextDefinition<Real>("_Z5rmDirRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEb");
    return real(path, removeTop);
}

extern "C" DIR* opendir(char const* path) {
    if (!failingOpendirPath.empty() && failingOpendirPath == path) {
        errno = EMFILE;
        return nullptr;
    }
    using Real = DIR* (*)(char const*);
    static Real real = nxatest::nextDefinition<Real>("opendir");
    return real(path);
}

namespace {

using nxaclienttest::listDir;
using nxaclienttest::makeModuleZip;
using nxaclienttest::makePackage;
using nxatest::readFile;

constexpr char kPackageDir[] = "/var/opt/velmora/pkg";
constexpr char kPackage[] = "/var/opt/velmora/pkg/nxa.zip";
constexpr char kModulesDir[] = "/var/opt/velmora/nxa";

class Unpack : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        failingRmDirPath.clear();
        failingOpendirPath.clear();
        mkdir(kPackageDir, 0755);
        mkdir(kModulesDir, 0755);
    }
    void TearDown() override {
        client.reset();
        NXAClient::debug = 0;
    }

    // A facade at `level` configured with `names` (modules on free ports from 21000).
    void configure(std::vector<std::string> const& names, unsigned level = 0) {
        nxatest::Capture quiet;
        client = std::make_unique<NXAClient>(kPackageDir, kModulesDir, "/var/opt/velmora/work", 0, 21000, 16,
                                             "", level);
        client->modules.configure(names);
    }

    // Expects unpack() to throw IOException with `code` and `text`.
    void expectFailure(int code, std::string const& text) {
        try {
            client->unpack();
            ADD_FAILURE() << "no exception";
        } catch (IOException const& e) {
            EXPECT_EQ(e.code().value(), code);
            EXPECT_EQ(e.what(), text);
        }
    }

    nxaclienttest::TempDir staging;
    std::unique_ptr<NXAClient> client;
};

TEST_F(Unpack, NothingConfiguredIgnoresAMissingPackage) {
    configure({});
    nxatest::writeFile(std::string(kModulesDir) + "/keep", "x");
    nxatest::Capture out;
    client->unpack();
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::unpack() no modules configured, ignore not existing "
              "/var/opt/velmora/pkg/nxa.zip\n");
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"keep"});
}

TEST_F(Unpack, NothingConfiguredLeavesAnExistingPackageAlone) {
    configure({});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    nxatest::Capture out;
    client->unpack();
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::unpack() no modules configured, ignore not existing "
              "/var/opt/velmora/pkg/nxa.zip\n");
    EXPECT_TRUE(listDir(kModulesDir).empty());
    EXPECT_FALSE(isDirectory("/tmp/nxa", std::nothrow));
}

TEST_F(Unpack, MissingPackageIsAnErrorThatLeavesTheModulesAlone) {
    configure({"a"});
    nxatest::writeFile(std::string(kModulesDir) + "/keep", "x");
    nxatest::Capture out;
    errno = EACCES;
    expectFailure(2, "/var/opt/velmora/pkg/nxa.zip does not exist: No such file or directory");
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"keep"});
}

TEST_F(Unpack, InstallsTheZipsAndLeavesOtherFilesInTheScratchDirectory) {
    configure({"a", "b"});
    makeModuleZip(staging.path(), "a", "noarch", "A");
    makeModuleZip(staging.path(), "b", "noarch", "B");
    nxatest::writeFile(staging.path() + "/readme.txt", "read me");
    nxatest::writeFile(std::string(kModulesDir) + "/old", "stale");
    makePackage(staging.path(), kPackage, {"a.zip", "b.zip", "readme.txt"});
    nxatest::Capture out;
    client->unpack();
    EXPECT_EQ(out.text(), "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n");
    EXPECT_EQ(listDir(kModulesDir), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(listDir(std::string(kModulesDir) + "/a"), (std::vector<std::string>{"Manifest", "a"}));
    EXPECT_EQ(readFile(std::string(kModulesDir) + "/a/Manifest"), nxaclienttest::manifestText("a", "noarch"));
    EXPECT_EQ(listDir("/tmp/nxa"), (std::vector<std::string>{"a.zip", "b.zip", "readme.txt"}));
    EXPECT_EQ(client->getModulesInstalled(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(Unpack, UpperCaseSuffixIsNotAModule) {
    configure({"module"});
    makeModuleZip(staging.path(), "module", "noarch");
    rename((staging.path() + "/module.zip").c_str(), (staging.path() + "/module.ZIP").c_str());
    makePackage(staging.path(), kPackage, {"module.ZIP"});
    nxatest::Capture out;
    expectFailure(ENOENT, "/var/opt/velmora/nxa/module/Manifest: No such file or directory");
    EXPECT_TRUE(listDir(kModulesDir).empty());
}

TEST_F(Unpack, NameIsTakenUpToTheLastDot) {
    configure({"a.b"});
    makeModuleZip(staging.path(), "a.b", "noarch");
    makePackage(staging.path(), kPackage, {"a.b.zip"});
    nxatest::Capture out;
    client->unpack();
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a.b"});
    EXPECT_EQ(client->getModulesInstalled(), std::vector<std::string>{"a.b"});
}

TEST_F(Unpack, FolderInsteadOfArchivesInstallsNothingAndStillScans) {
    configure({"a"}, 1);
    makeModuleZip(staging.path(), "a", "noarch");
    nxatest::writeFile(std::string(kModulesDir) + "/old", "stale");
    makePackage(staging.path(), kPackage, {"a"});  // the folder, not a.zip
    nxatest::Capture out;
    expectFailure(ENOENT, "/var/opt/velmora/nxa/a/Manifest: No such file or directory");
    EXPECT_TRUE(listDir(kModulesDir).empty());
    std::string const text = out.text();
    EXPECT_NE(text.find("[DEBUG] NXAModules::scan() before: #modules=1\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("after: #modules="), std::string::npos) << text;
}

TEST_F(Unpack, SecondInstallationEmptiesAndRefills) {
    configure({"a"});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    nxatest::Capture out;
    client->unpack();
    nxatest::writeFile(std::string(kModulesDir) + "/a/extra", "added later");
    nxatest::writeFile(std::string(kModulesDir) + "/other", "added later");
    client->unpack();
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
    EXPECT_EQ(listDir(std::string(kModulesDir) + "/a"), (std::vector<std::string>{"Manifest", "a"}));
    EXPECT_EQ(out.text(),
              "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n"
              "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n");
}

TEST_F(Unpack, ModulesThatDoNotFitTheMachineAreDropped) {
    configure({"any", "wide", "old"});
    makeModuleZip(staging.path(), "any", "noarch");
    makeModuleZip(staging.path(), "wide", "x86_64");
    makeModuleZip(staging.path(), "old", "i686");
    makePackage(staging.path(), kPackage, {"any.zip", "wide.zip", "old.zip"});
    nxatest::Capture out;
    client->unpack();
    EXPECT_EQ(listDir(kModulesDir), (std::vector<std::string>{"any", "old", "wide"}));
    EXPECT_EQ(client->getModulesInstalled(), std::vector<std::string>{"any"});
}

TEST_F(Unpack, CorruptPackageIsAnErrorWithCodeTwo) {
    configure({"a"});
    nxatest::writeFile(kPackage, "PK\x03\x04 this is not really a zip archive");
    nxatest::writeFile(std::string(kModulesDir) + "/old", "stale");
    nxatest::Capture out;
    errno = 0;
    expectFailure(2, "cannot unzip /var/opt/velmora/pkg/nxa.zip to /tmp/nxa: No such file or directory");
    // The zip helpers say why, beside the library's own text.
    EXPECT_EQ(
        out.text(),
        "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n"
        "[WARNING] zipper::unZipWithDirs() /var/opt/velmora/pkg/nxa.zip -> /tmp/nxa: failed: cannot open "
        "/var/opt/velmora/pkg/nxa.zip: Not a zip archive\n");
    EXPECT_TRUE(listDir(kModulesDir).empty());
}

TEST_F(Unpack, AnInnerArchiveThatDoesNotUnpackIsWarnedAboutOnAnOpenLine) {
    configure({"a", "bad"});
    makeModuleZip(staging.path(), "a", "noarch");
    nxatest::writeFile(staging.path() + "/bad.zip", "not a zip at all");
    makePackage(staging.path(), kPackage, {"a.zip", "bad.zip"});
    nxatest::Capture out;
    expectFailure(ENOENT, "/var/opt/velmora/nxa/bad/Manifest: No such file or directory");
    // The zip helpers' own line says why, flushed, before the library's.
    std::string const found =
        "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n"
        "[WARNING] zipper::unZipWithDirs() /tmp/nxa/bad.zip -> /var/opt/velmora/nxa/bad: failed: cannot open "
        "/tmp/nxa/bad.zip: Not a zip archive\n";
    // Neither ended nor flushed: whatever is written next continues the line.
    EXPECT_EQ(out.textUnflushed(), found);
    EXPECT_EQ(
        out.text(),
        found + "[WARNING] NXAClient::unpack() cannot unzip /tmp/nxa/bad.zip to /var/opt/velmora/nxa/bad");
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
}

TEST_F(Unpack, AnInnerArchiveThatClimbsOutIsRefused) {
    configure({"a", "evil"});
    makeModuleZip(staging.path(), "a", "noarch");
    std::string const evil = staging.path() + "/work/x";
    nxatest::shell("mkdir -p '" + evil + "' && echo pwned > '" + staging.path() + "/work/escaped'");
    nxatest::ShellResult r =
        nxatest::shell("cd '" + evil + "' && zip -q '" + staging.path() + "/evil.zip' ../escaped");
    ASSERT_EQ(r.status, 0) << r.output;
    makePackage(staging.path(), kPackage, {"a.zip", "evil.zip"});
    nxatest::Capture out;
    expectFailure(ENOENT, "/var/opt/velmora/nxa/evil/Manifest: No such file or directory");
    EXPECT_NE(out.text().find("[WARNING] NXAClient::unpack() cannot unzip /tmp/nxa/evil.zip to "
                              "/var/opt/velmora/nxa/evil"),
              std::string::npos);
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
    struct stat st;
    EXPECT_NE(stat("/var/opt/velmora/nxa/escaped", &st), 0);
    EXPECT_NE(stat("/var/opt/velmora/escaped", &st), 0);
}

// Entries "...zip", "..zip" and ".zip" name the modules "..", "." and "": their
// destinations are the modules directory's parent and the directory itself,
// which the platform refuses, so each gets the warning and nothing is written
// outside the module folders.
TEST_F(Unpack, ModulesNamedDotDotDotOrNothingAreRefusedAndWriteNothing) {
    configure({"a"}, 1);
    makeModuleZip(staging.path(), "a", "noarch");
    std::string const escape = makeModuleZip(staging.path(), "escape", "noarch");
    for (char const* name : {"...zip", "..zip", ".zip"}) {
        ASSERT_EQ(nxatest::shell("cp '" + escape + "' '" + staging.path() + "/" + name + "'").status, 0);
    }
    makePackage(staging.path(), kPackage, {"a.zip", "...zip", "..zip", ".zip"});
    std::vector<std::string> const velmoraBefore = listDir("/var/opt/velmora");
    std::vector<std::string> tmpAfter = listDir("/tmp");
    tmpAfter.push_back("nxa");
    std::sort(tmpAfter.begin(), tmpAfter.end());
    nxatest::Capture out;
    client->unpack();
    std::string const text = out.text();
    for (std::string const refused : {"...zip to /var/opt/velmora/nxa/..", "..zip to /var/opt/velmora/nxa/.",
                                      ".zip to /var/opt/velmora/nxa/"}) {
        EXPECT_NE(text.find("[WARNING] NXAClient::unpack() cannot unzip /tmp/nxa/" + refused),
                  std::string::npos)
            << refused << "\n"
            << text;
    }
    for (std::string const reason :
         {"last component is \"..\"", "last component is \".\"", "last component is empty"}) {
        EXPECT_NE(text.find(": failed: refused destination: " + reason), std::string::npos) << reason << "\n"
                                                                                            << text;
    }
    EXPECT_EQ(listDir("/var/opt/velmora"), velmoraBefore);
    EXPECT_EQ(listDir("/tmp"), tmpAfter);
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
    EXPECT_EQ(listDir(std::string(kModulesDir) + "/a"), (std::vector<std::string>{"Manifest", "a"}));
    EXPECT_EQ(listDir("/tmp/nxa"), (std::vector<std::string>{"...zip", "..zip", ".zip", "a.zip"}));
    EXPECT_EQ(client->getModulesInstalled(), std::vector<std::string>{"a"});
}

// Adds a sparse file "zeros" of `size` bytes to the module folder `name` in
// `staging` and zips it into <name>.zip with the zip options `options`.
void addZeros(std::string const& staging, std::string const& name, std::string const& size,
              std::string const& options = "") {
    nxatest::ShellResult const r =
        nxatest::shell("cd '" + staging + "/" + name + "' && truncate -s " + size + " zeros && zip -q " +
                       options + " ../" + name + ".zip zeros");
    ASSERT_EQ(r.status, 0) << r.output;
}

// "bomb" packs 300 MiB of zeros into a few hundred KB, over the default
// budget; "dense" packs 64 MiB into a few hundred bytes, over the ratio limit.
TEST_F(Unpack, DecompressionBombsAreRefusedWhileTheOtherModulesAreInstalled) {
    configure({"a"}, 1);
    makeModuleZip(staging.path(), "a", "noarch");
    makeModuleZip(staging.path(), "bomb", "noarch");
    addZeros(staging.path(), "bomb", "300M");
    makeModuleZip(staging.path(), "dense", "noarch");
    addZeros(staging.path(), "dense", "64M", "-Z bzip2");
    makePackage(staging.path(), kPackage, {"a.zip", "bomb.zip", "dense.zip"});
    nxatest::Capture out;
    client->unpack();
    std::string const text = out.text();
    for (std::string const name : {"bomb", "dense"}) {
        EXPECT_NE(text.find("[WARNING] NXAClient::unpack() cannot unzip /tmp/nxa/" + name + ".zip to " +
                            kModulesDir + "/" + name),
                  std::string::npos)
            << name << "\n"
            << text;
    }
    EXPECT_NE(text.find(" -> /var/opt/velmora/nxa/bomb: failed: refused archive: its entries declare"),
              std::string::npos)
        << text;
    EXPECT_NE(
        text.find(" -> /var/opt/velmora/nxa/dense: failed: refused entry \"zeros\": 67108864 bytes from "),
        std::string::npos)
        << text;
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
    EXPECT_EQ(listDir(std::string(kModulesDir) + "/a"), (std::vector<std::string>{"Manifest", "a"}));
    EXPECT_EQ(client->getModulesInstalled(), std::vector<std::string>{"a"});
}

TEST_F(Unpack, AModuleWithoutManifestStopsTheScan) {
    configure({"a"});
    makeModuleZip(staging.path(), "a", "");
    makePackage(staging.path(), kPackage, {"a.zip"});
    nxatest::Capture out;
    expectFailure(ENOENT, "/var/opt/velmora/nxa/a/Manifest: No such file or directory");
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
}

TEST_F(Unpack, CreatesAMissingModulesDirectory) {
    rmdir(kModulesDir);
    configure({"a"});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    nxatest::Capture out;
    client->unpack();
    struct stat st;
    ASSERT_EQ(stat(kModulesDir, &st), 0);
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"a"});
}

TEST_F(Unpack, ModulesDirectoryThatCannotBeCreated) {
    std::string const missing = "/var/opt/velmora/none/nxa";
    nxatest::Capture quiet;
    client = std::make_unique<NXAClient>(kPackageDir, missing.c_str(), "/var/opt/velmora/work", 0, 21000, 16,
                                         "", 0);
    client->modules.configure({"a"});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    expectFailure(ENOENT, "cannot create /var/opt/velmora/none/nxa: No such file or directory");
}

TEST_F(Unpack, ModulesDirectoryThatCannotBeEmptied) {
    configure({"a"});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    failingRmDirPath = kModulesDir;
    failingRmDirErrno = EBUSY;
    nxatest::Capture out;
    expectFailure(EBUSY, "cannot remove contents of /var/opt/velmora/nxa: Device or resource busy");
}

TEST_F(Unpack, ScratchDirectoryThatCannotBeRemoved) {
    configure({"a"});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    mkdir("/tmp/nxa", 0755);
    failingRmDirPath = "/tmp/nxa";
    failingRmDirErrno = EPERM;
    nxatest::Capture out;
    expectFailure(EPERM, "cannot remove tmp directory /tmp/nxa: Operation not permitted");
}

TEST_F(Unpack, ScratchDirectoryThatCannotBeRead) {
    configure({"a"});
    makeModuleZip(staging.path(), "a", "noarch");
    makePackage(staging.path(), kPackage, {"a.zip"});
    failingOpendirPath = "/tmp/nxa";
    nxatest::Capture out;
    expectFailure(EMFILE, "cannot opendir /tmp/nxa: Too many open files");
}

TEST_F(Unpack, RunInstallsBeforeStartingAndStartsNothingWhenInstallationFails) {
    configure({"a"});
    nxatest::Capture out;
    EXPECT_THROW(client->run(), IOException);
    std::string log;
    client->getRunLog(log);
    EXPECT_EQ(log, "");
}

}  // namespace
