// SafeReload in the sandbox, with real packages made with zip: the copy taken
// for the first installation, the check of a reload's copy, the copy that is
// installed whatever happens to the delivered file afterwards, and the package
// that ran before put back when an installation fails.
#include <gtest/gtest.h>
#include <nxahost/package_copy.h>
#include <nxahost/safe_reload.h>
#include <sys/stat.h>
#include <vlplatform/zipper.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "capture.h"
#include "fakes.h"
#include "sandbox.h"
#include "shell.h"

namespace hosttest {
namespace {

constexpr char kPackageDir[] = "/var/opt/velmora";
constexpr char kDelivered[] = "/var/opt/velmora/nxa.zip";
// Where the good copies are kept, named by their hash.
constexpr char kGood[] = "/var/opt/velmora/.nxahost/good/";

// A package holding the modules `names`, each printing `text`, as bytes;
// each Manifest names `version`.
std::string makePackage(std::vector<std::string> const& names, std::string const& text,
                        std::string const& version = "1.0") {
    std::string const work = "/tmp/safe-reload-work";
    std::string inner;
    std::string script = "rm -rf " + work + " && mkdir -p " + work + " && cd " + work;
    for (std::string const& name : names) {
        script += " && mkdir " + name + " && printf 'name\\t=\\t" + name + "\\nversion\\t=\\t" + version +
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

    static nxahost::SafeReload::Setup setup() {
        nxahost::SafeReload::Setup s;
        s.packageDir = kPackageDir;
        s.modules = {"m1", "m2"};
        return s;
    }

    // Starts with `package` and lets its probation run out: it is the last good one.
    void startAndPassProbation(std::string const& package) {
        nxatest::writeFile(kDelivered, package);
        reload.takeForStart();
        reload.started();
        clock.advance(std::chrono::seconds(60));
        ASSERT_TRUE(reload.endProbationIfDue());
    }

    nxatest::Capture quiet;
    FakeClock clock;
    nxahost::SafeReload reload{setup(), clock};
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

TEST_F(SafeReload, APackageOnProbationBecomesTheLastGoodOneWhenItsTimeIsOver) {
    std::string const first = makePackage({"m1", "m2"}, "first");
    nxatest::writeFile(kDelivered, first);
    reload.takeForStart();
    reload.started();
    ASSERT_TRUE(reload.probationEnd());
    EXPECT_EQ(*reload.probationEnd() - clock.now(), std::chrono::seconds(60));
    clock.advance(std::chrono::seconds(59));
    EXPECT_FALSE(reload.endProbationIfDue());
    EXPECT_EQ(reload.programFailed("m1", "exit status 1"), "");
    clock.advance(std::chrono::seconds(1));
    EXPECT_TRUE(reload.endProbationIfDue());
    EXPECT_FALSE(reload.probationEnd());
    ASSERT_TRUE(reload.record().lastGood);
    EXPECT_EQ(reload.record().lastGood->hash, reload.record().installed->hash);
    EXPECT_EQ(nxatest::readFile(kGood + reload.record().lastGood->hash + ".zip"), first);
    EXPECT_EQ(reload.programFailed("m1", "exit status 1"), "") << "no probation, no rollback";
}

// A power cut between the good copy and the record that names it leaves a copy
// of no record's: the next host removes it and keeps the one its record names.
TEST_F(SafeReload, OnlyTheGoodCopyTheRecordNamesIsKept) {
    std::string const first = makePackage({"m1", "m2"}, "first");
    ASSERT_NO_FATAL_FAILURE(startAndPassProbation(first));
    std::string const good = kGood + reload.record().lastGood->hash + ".zip";
    std::string const orphan = std::string(kGood) + std::string(64, 'a') + ".zip";
    nxatest::writeFile(orphan, "half a package");
    nxahost::SafeReload next{setup(), clock};
    EXPECT_FALSE(exists(orphan));
    EXPECT_EQ(nxatest::readFile(good), first);
}

TEST_F(SafeReload, FailuresWithinTheProbationRollBackToTheLastGoodPackageForGood) {
    std::string const first = makePackage({"m1", "m2"}, "first");
    ASSERT_NO_FATAL_FAILURE(startAndPassProbation(first));
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "second", "2.0"));
    ASSERT_EQ(reload.takeForReload(), "");
    reload.install([] {});
    EXPECT_EQ(reload.record().installed->version, "2.0");
    EXPECT_EQ(reload.programFailed("m1", "exit status 1"), "");
    EXPECT_EQ(reload.programFailed("m2", "exit status 1"), "") << "counted per module";
    EXPECT_EQ(reload.programFailed("m1", "exit status 1"), "");
    std::string const reason = reload.programFailed("m1", "exit status 4");
    EXPECT_EQ(reason, "module m1 ended 3 times within 60 s (exit status 4)");
    std::string installedThen;
    EXPECT_TRUE(reload.rollBack(reason, [&] { installedThen = installed(); }));
    EXPECT_EQ(installedThen, first);
    EXPECT_EQ(reload.record().installed->version, "1.0");
    EXPECT_FALSE(reload.probationEnd()) << "the last good package is on no probation";
    EXPECT_NE(
        quiet.text().find("[ERROR] nxahost: reload rolled back: module m1 ended 3 times within 60 s (exit "
                          "status 4); package 2.0 replaced by 1.0\n"),
        std::string::npos)
        << quiet.text();
    // The same file again: refused, until another one replaces it.
    EXPECT_EQ(reload.takeForReload().rfind("this package (blake2b ", 0), 0u);
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "third", "2.1"));
    EXPECT_EQ(reload.takeForReload(), "");
}

TEST_F(SafeReload, WithNoLastGoodPackageThereIsNothingToGoBackTo) {
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "first"));
    reload.takeForStart();
    reload.started();
    bool replaced = false;
    EXPECT_FALSE(
        reload.rollBack("module m1 ended 3 times within 60 s (exit status 1)", [&] { replaced = true; }));
    EXPECT_FALSE(replaced);
    EXPECT_NE(quiet.text().find("there is no last good package to go back to"), std::string::npos);
}

TEST_F(SafeReload, AtStartARefusedPackageGivesWayToTheLastGoodOne) {
    std::string const first = makePackage({"m1", "m2"}, "first");
    ASSERT_NO_FATAL_FAILURE(startAndPassProbation(first));
    // The device restarts with a broken package delivered.
    nxatest::writeFile(kDelivered, makePackage({"m2"}, "second"));
    nxahost::SafeReload again(setup(), clock);
    again.takeForStart();
    again.started();
    EXPECT_EQ(nxatest::readFile(again.installDir() + "/nxa.zip"), first);
    EXPECT_NE(
        quiet.text().find("[ERROR] nxahost: the package /var/opt/velmora/nxa.zip is refused: the package "
                          "holds no module m1; starting the last good package 1.0 instead\n"),
        std::string::npos)
        << quiet.text();
}

// With trusted keys: signatures, and versions that only go forward.
class SignedReload : public SafeReload {
protected:
    void SetUp() override {
        SafeReload::SetUp();
        ASSERT_EQ(nxatest::shell(
                      "mkdir -p /tmp/keys /tmp/other && cd /tmp && minisign -G -W -p keys/k.pub -s k.key "
                      "&& minisign -G -W -p other/o.pub -s other/o.key")
                      .status,
                  0);
        nxahost::SafeReload::Setup s = setup();
        s.keys = nxahost::TrustedKeys::load("/tmp/keys");
        signedReload = std::make_unique<nxahost::SafeReload>(s, clock);
    }
    // Delivers `package`, signed with the key `key`.
    static void deliverSigned(std::string const& package, std::string const& key = "/tmp/k.key") {
        nxatest::writeFile(kDelivered, package);
        ASSERT_EQ(nxatest::shell(std::string("minisign -S -s ") + key + " -m " + kDelivered).status, 0);
    }
    void passProbation() {
        clock.advance(std::chrono::seconds(60));
        ASSERT_TRUE(signedReload->endProbationIfDue());
    }
    std::unique_ptr<nxahost::SafeReload> signedReload;
};

TEST_F(SignedReload, OnlyAPackageSignedByATrustedKeyIsTakenAndItsSignerIsKept) {
    EXPECT_TRUE(signedReload->checksSignatures());
    nxatest::writeFile(kDelivered, makePackage({"m1", "m2"}, "first"));
    EXPECT_EQ(signedReload->takeForReload(),
              "no signature: /var/opt/velmora/.nxahost/incoming.zip.minisig: No such file or directory");
    deliverSigned(makePackage({"m1", "m2"}, "first"), "/tmp/other/o.key");
    EXPECT_EQ(signedReload->takeForReload().rfind("signed by a key that is not trusted (", 0), 0u);
    deliverSigned(makePackage({"m1", "m2"}, "first"));
    EXPECT_EQ(signedReload->takeForReload(), "");
    signedReload->install([] {});
    ASSERT_TRUE(signedReload->record().installed);
    EXPECT_EQ(signedReload->record().installed->keyId.size(), 16u);
    EXPECT_NE(signedReload->record().installed->trustedComment.find("timestamp:"), std::string::npos);
}

TEST_F(SignedReload, VersionsOnlyGoForwardUnlessAllowedForOneReload) {
    deliverSigned(makePackage({"m1", "m2"}, "first", "1.10"));
    signedReload->takeForStart();
    signedReload->started();
    passProbation();
    deliverSigned(makePackage({"m1", "m2"}, "older", "1.9"));
    EXPECT_EQ(
        signedReload->takeForReload(),
        "module m1 would go from version 1.10 back to 1.9 (nxactl reload --allow-downgrade allows it for one "
        "reload)");
    EXPECT_EQ(signedReload->takeForReload(true), "");
    signedReload->install([] {});
    EXPECT_EQ(signedReload->record().installed->moduleVersions.at("m1"), "1.9");
    passProbation();
    EXPECT_EQ(signedReload->record().versions.at("m1"), "1.10") << "the newest that passed stays the floor";
    deliverSigned(makePackage({"m1", "m2"}, "newer", "1.11"));
    EXPECT_EQ(signedReload->takeForReload(), "");
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
