// SafeReload in the sandbox, with real packages made with zip: the copy taken
// for the first installation, the check of a reload's copy, the copy that is
// installed whatever happens to the delivered file afterwards, and the package
// that ran before put back when an installation fails.
#include <gtest/gtest.h>
#include <nxahost/package_copy.h>
#include <nxahost/safe_reload.h>
#include <sys/stat.h>
#include <vlplatform/zipper.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "capture.h"
#include "sandbox.h"
#include "shell.h"

namespace hosttest {
namespace {

constexpr char kPackageDir[] = "/var/opt/velmora";
constexpr char kDelivered[] = "/var/opt/velmora/nxa.zip";

// A package holding the modules `names`, each printing `text`, as bytes.
std::string makePackage(std::vector<std::string> const& names, std::string const& text) {
    std::string const work = "/tmp/safe-reload-work";
    std::string inner;
    std::string script = "rm -rf " + work + " && mkdir -p " + work + " && cd " + work;
    for (std::string const& name : names) {
        script += " && mkdir " + name + " && printf 'name\\t=\\t" + name +
                  "\\narchitecture\\t=\\tnoarch\\n' > " + name + "/Manifest && printf '#!/bin/sh\\necho " +
                  text + "\\n' > " + name + "/" + name + " && (cd " + name + " && zip -q ../" + name +
                  ".zip Manifest " + name + ")";
        inner += " " + name + ".zip";
    }
    script += " && zip -q package.zip" + inner;
    nxatest::ShellResult const made = nxatest::shell(script);
    EXPECT_EQ(made.status, 0) << made.output;
    return nxatest::readFile(work + "/package.zip");
}

bool exists(std::string const& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

class SafeReload : public ::testing::Test {
protected:
    void SetUp() override { NXA_REQUIRE_SANDBOX(); }
    std::string installed() const { return nxatest::readFile(reload.installDir() + "/nxa.zip"); }

    nxatest::Capture quiet;
    nxahost::SafeReload reload{kPackageDir, {"m1", "m2"}};
};

TEST_F(SafeReload, TheFirstInstallationTakesACopyOfTheDeliveredPackage) {
    std::string const package = makePackage({"m1", "m2"}, "first");
    nxatest::writeFile(kDelivered, package);
    reload.takeForStart();
    EXPECT_EQ(reload.installDir(), "/var/opt/velmora/.nxahost/install");
    EXPECT_EQ(reload.delivered(), kDelivered);
    EXPECT_EQ(installed(), package);
    nxatest::writeFile(kDelivered, "replaced");
    EXPECT_EQ(installed(), package) << "the copy is the host's own";
}

TEST_F(SafeReload, AMissingPackageIsNamedAndNothingIsWritten) {
    try {
        reload.takeForStart();
        FAIL() << "a missing package was taken";
    } catch (std::runtime_error const& e) {
        EXPECT_STREQ(e.what(), "/var/opt/velmora/nxa.zip does not exist: No such file or directory");
    }
    EXPECT_FALSE(exists("/var/opt/velmora/.nxahost"));
    EXPECT_EQ(reload.takeForReload(), "/var/opt/velmora/nxa.zip does not exist: No such file or directory");
}

TEST_F(SafeReload, AReloadCopyThatLacksAModuleIsRefusedAndTheInstalledCopyStays) {
    std::string const first = makePackage({"m1", "m2"}, "first");
    nxatest::writeFile(kDelivered, first);
    reload.takeForStart();
    reload.started();
    nxatest::writeFile(kDelivered, makePackage({"m2"}, "second"));
    EXPECT_EQ(reload.takeForReload(), "the package holds no module m1");
    nxatest::writeFile(kDelivered, "no zip at all");
    EXPECT_EQ(reload.takeForReload(), "/var/opt/velmora/nxa.zip cannot be unpacked");
    EXPECT_EQ(installed(), first);
}

TEST_F(SafeReload, WhatIsInstalledIsTheCheckedCopyWhateverHappensToTheFileAfterwards) {
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "first"));
    reload.takeForStart();
    reload.started();
    std::string const second = makePackage({"m1", "m2"}, "second");
    nxatest::writeFile(kDelivered, second);
    ASSERT_EQ(reload.takeForReload(), "");
    nxatest::writeFile(kDelivered, makePackage({"m2"}, "third"));
    std::string seen;
    reload.install([&] { seen = installed(); });
    EXPECT_EQ(seen, second);
}

TEST_F(SafeReload, AnInstallationThatFailsPutsThePackageThatRanBeforeBack) {
    std::string const first = makePackage({"m1", "m2"}, "first");
    nxatest::writeFile(kDelivered, first);
    reload.takeForStart();
    reload.started();
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "second"));
    ASSERT_EQ(reload.takeForReload(), "");
    std::vector<std::string> replaced;
    reload.install([&] {
        replaced.push_back(installed());
        if (replaced.size() == 1) throw std::runtime_error("cannot fork: Resource temporarily unavailable");
    });
    ASSERT_EQ(replaced.size(), 2u);
    EXPECT_EQ(replaced[1], first);
    EXPECT_NE(quiet.text().find("[ERROR] nxahost: reload failed: cannot fork: Resource temporarily "
                                "unavailable; installing the package that ran before again\n"),
              std::string::npos)
        << quiet.text();
    // The package that ran before is still the one that runs.
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "third"));
    ASSERT_EQ(reload.takeForReload(), "");
    EXPECT_THROW(reload.install([] { throw std::runtime_error("the disk is full"); }), std::runtime_error)
        << "when even the package that ran before cannot be installed, the error leaves";
    EXPECT_EQ(installed(), first);
}

TEST_F(SafeReload, APackageLargerThanTheUnpackBudgetIsRefused) {
    zipper::setUnpackBudget(1 << 20);
    nxatest::writeFile(kDelivered, std::string(2 << 20, 'x'));
    EXPECT_EQ(reload.takeForReload(),
              "/var/opt/velmora/nxa.zip holds 2097152 bytes, more than the 1048576 a package may have");
    zipper::setUnpackBudget(0);
}

TEST(PackageCopy, WhatIsNoRegularFileIsRefusedAndTheCopyLeftAlone) {
    NXA_REQUIRE_SANDBOX();
    nxatest::writeFile("/tmp/copy", "old");
    ASSERT_EQ(nxatest::shell("mkfifo /tmp/fifo").status, 0);
    EXPECT_EQ(nxahost::copyPackage("/tmp/fifo", "/tmp/copy", 1 << 20), "/tmp/fifo is not a file");
    EXPECT_EQ(nxahost::copyPackage("/tmp", "/tmp/copy", 1 << 20), "/tmp is not a file");
    EXPECT_EQ(nxatest::readFile("/tmp/copy"), "old");
    EXPECT_FALSE(exists("/tmp/copy.part"));
}

TEST(PackageCopy, ACopyIsWholeAndReplacesTheOldOne) {
    NXA_REQUIRE_SANDBOX();
    std::string const bytes(300000, 'y');
    nxatest::writeFile("/tmp/source", bytes);
    nxatest::writeFile("/tmp/copy", "old");
    EXPECT_EQ(nxahost::copyPackage("/tmp/source", "/tmp/copy", 1 << 20), "");
    EXPECT_EQ(nxatest::readFile("/tmp/copy"), bytes);
    EXPECT_FALSE(exists("/tmp/copy.part"));
}

}  // namespace
}  // namespace hosttest
