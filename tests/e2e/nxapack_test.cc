// nxapack: module folders and development-package zips into the package the
// host installs, and its refusals with their messages and exit statuses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host_process.h"
#include "packages.h"
#include "sandbox.h"
#include "shell.h"

namespace e2e {
namespace {

struct PackRun {
    int status;
    std::string out;
    std::string err;
};

class Nxapack : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + src_ + " " + tmp_ + " " + look_).status, 0);
    }

    // Runs nxapack with `args` (already shell words), its scratch folders under tmp_.
    PackRun pack(std::string const& args) const {
        std::string const errFile = scratchDir() + "/pack.err";
        nxatest::ShellResult const r =
            nxatest::shell("TMPDIR=" + tmp_ + " " + quoted(packBinary()) + " " + args + " 2>" + errFile);
        return {r.status, r.output, nxatest::readFile(errFile)};
    }

    // The names in archive `zip`, one per line as unzip lists them, sorted.
    static std::string entries(std::string const& zip) {
        return nxatest::shell("unzip -Z1 " + quoted(zip) + " | sort").output;
    }

    // Extracts inner archive `name` of the package `zip` and lists it.
    std::string innerEntries(std::string const& zip, std::string const& name) const {
        nxatest::ShellResult const r =
            nxatest::shell("cd " + look_ + " && rm -rf * && unzip -q " + quoted(zip) + " " + quoted(name));
        EXPECT_EQ(r.status, 0) << r.output;
        return entries(look_ + "/" + name);
    }

    // The mode bits of `file` inside inner archive `inner` of `zip`, as extracted by unzip.
    int extractedMode(std::string const& zip, std::string const& inner, std::string const& file) const {
        std::string const dir = look_ + "/x";
        nxatest::shell("cd " + look_ + " && rm -rf * && unzip -q " + quoted(zip) + " " + quoted(inner) +
                       " && mkdir x && cd x && unzip -q ../" + quoted(inner));
        struct stat s;
        return ::stat((dir + "/" + file).c_str(), &s) == 0 ? static_cast<int>(s.st_mode & 07777) : -1;
    }

    bool exists(std::string const& path) const {
        struct stat s;
        return ::stat(path.c_str(), &s) == 0;
    }

    std::string const src_ = scratchDir() + "/src";
    std::string const tmp_ = scratchDir() + "/tmp";
    std::string const look_ = scratchDir() + "/look";
    std::string const out_ = scratchDir() + "/out.zip";
};

TEST_F(Nxapack, ModuleFolderBecomesOneArchiveWithManifestAndProgramAtItsTop) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "nxapack: module alpha from " + alpha + "\nnxapack: wrote " + out_ + " with 1 module(s)\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(entries(out_), "alpha.zip\n");
    EXPECT_EQ(innerEntries(out_, "alpha.zip"), "Manifest\nalpha\n");
    EXPECT_EQ(extractedMode(out_, "alpha.zip", "alpha"), 0755);
    EXPECT_EQ(nxatest::readFile(look_ + "/x/Manifest"), manifestText("alpha", "noarch"));
    EXPECT_EQ(listDir(tmp_), std::vector<std::string>{});
}

TEST_F(Nxapack, SeveralModulesGoIntoOnePackageInTheOrderGiven) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    std::string const beta = writeModule(src_, "beta", "i586", "echo beta");
    PackRun const r = pack(quoted(out_) + " " + quoted(beta) + " " + quoted(alpha + "/"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "nxapack: module beta from " + beta + "\nnxapack: module alpha from " + alpha +
                         "/\nnxapack: wrote " + out_ + " with 2 module(s)\n");
    EXPECT_EQ(entries(out_), "alpha.zip\nbeta.zip\n");
}

TEST_F(Nxapack, DevelopmentPackageZipWithOneTopFolderIsNamedAfterTheFolder) {
    writeModule(src_, "alpha", "noarch", "echo alpha");
    zipIn(src_, scratchDir() + "/devel.zip", "alpha");
    ASSERT_EQ(entries(scratchDir() + "/devel.zip"), "alpha/\nalpha/Manifest\nalpha/alpha\n");
    PackRun const r = pack(quoted(out_) + " " + quoted(scratchDir() + "/devel.zip"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "nxapack: module alpha from " + scratchDir() + "/devel.zip\nnxapack: wrote " + out_ +
                         " with 1 module(s)\n");
    EXPECT_EQ(entries(out_), "alpha.zip\n");
    EXPECT_EQ(innerEntries(out_, "alpha.zip"), "Manifest\nalpha\n");
    EXPECT_EQ(extractedMode(out_, "alpha.zip", "alpha"), 0755);
    EXPECT_EQ(listDir(tmp_), std::vector<std::string>{});
}

TEST_F(Nxapack, ZipWithTheModuleAtItsTopIsNamedAfterTheZip) {
    writeModule(src_, "beta", "noarch", "echo beta");
    zipIn(src_ + "/beta", scratchDir() + "/beta.zip", "Manifest beta");
    PackRun const r = pack(quoted(out_) + " " + quoted(scratchDir() + "/beta.zip"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(entries(out_), "beta.zip\n");
    EXPECT_EQ(innerEntries(out_, "beta.zip"), "Manifest\nbeta\n");
}

TEST_F(Nxapack, ProgramWithoutExecutePermissionIsPackedWithAWarning) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    ::chmod((alpha + "/alpha").c_str(), 0644);
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err,
              "nxapack: warning: module alpha: the program is not executable; the host will make it so\n");
    EXPECT_EQ(entries(out_), "alpha.zip\n");
}

// Each refusal: status 1, the message on standard error, no package written,
// no scratch folder left.
TEST_F(Nxapack, ModuleWithoutManifestIsRefused) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    ::unlink((alpha + "/Manifest").c_str());
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: module alpha: no Manifest in " + alpha + "\n");
    EXPECT_FALSE(exists(out_));
    EXPECT_EQ(listDir(tmp_), std::vector<std::string>{});
}

TEST_F(Nxapack, ManifestNamingAnotherModuleIsRefused) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    nxatest::writeFile(alpha + "/Manifest", manifestText("beta", "noarch"));
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(
        r.err,
        "nxapack: module alpha: the Manifest names the module \"beta\"; the module (folder or archive) must "
        "have that name\n");
    EXPECT_FALSE(exists(out_));
}

TEST_F(Nxapack, ManifestWithoutArchitectureIsRefused) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    nxatest::writeFile(alpha + "/Manifest", "name\t\t=\talpha\n");
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: module alpha: the Manifest has no architecture\n");
    EXPECT_FALSE(exists(out_));
}

TEST_F(Nxapack, ModuleWithoutItsProgramIsRefused) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    ::unlink((alpha + "/alpha").c_str());
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: module alpha: no program file alpha in " + alpha + "\n");
    EXPECT_FALSE(exists(out_));
}

TEST_F(Nxapack, ModuleGivenTwiceIsRefused) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    zipIn(src_, scratchDir() + "/devel.zip", "alpha");
    PackRun const r = pack(quoted(out_) + " " + quoted(alpha) + " " + quoted(scratchDir() + "/devel.zip"));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: module alpha given twice\n");
    EXPECT_FALSE(exists(out_));
    EXPECT_EQ(listDir(tmp_), std::vector<std::string>{});
}

TEST_F(Nxapack, InputsThatAreNoModuleAreRefused) {
    std::string const missing = scratchDir() + "/missing";
    PackRun r = pack(quoted(out_) + " " + quoted(missing));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: " + missing + ": no such folder or file\n");

    std::string const text = scratchDir() + "/notes.txt";
    nxatest::writeFile(text, "notes\n");
    r = pack(quoted(out_) + " " + quoted(text));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: " + text + ": neither a module folder nor a .zip file\n");

    std::string const fake = scratchDir() + "/fake.zip";
    nxatest::writeFile(fake, "not a zip\n");
    r = pack(quoted(out_) + " " + quoted(fake));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: " + fake + ": not a usable zip archive\n");
    EXPECT_FALSE(exists(out_));
    EXPECT_EQ(listDir(tmp_), std::vector<std::string>{});
}

TEST_F(Nxapack, PackageThatCannotBeWrittenIsReported) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    std::string const out = scratchDir() + "/no/such/folder/nxa.zip";
    PackRun const r = pack(quoted(out) + " " + quoted(alpha));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: cannot write " + out + ": No such file or directory\n");
    EXPECT_EQ(listDir(tmp_), std::vector<std::string>{});
}

TEST_F(Nxapack, UsageErrorsExitWithTwoAndHelpWithZero) {
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    std::string const usage = "usage: nxapack [OPTION]... OUT.zip MODULE_DIR_OR_ZIP...\n";
    for (std::string const& args : {std::string(), quoted(out_), "-x " + quoted(out_) + " " + quoted(alpha),
                                    "--version-tag 2.0 " + quoted(out_) + " " + quoted(alpha),
                                    "--sign-password-file /dev/null " + quoted(out_) + " " + quoted(alpha)}) {
        PackRun const r = pack(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_EQ(r.err.rfind(usage, 0), 0u) << args << ": " << r.err;
        EXPECT_EQ(r.out, "") << args;
    }
    PackRun const help = pack("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind(usage, 0), 0u) << help.out;
    EXPECT_EQ(help.err, "");
    EXPECT_FALSE(exists(out_));
}

// A module folder whose Manifest names `version`, or no version when it is empty.
std::string versionedModule(std::string const& parent, std::string const& name, std::string const& version) {
    std::string const folder = writeModule(parent, name, "noarch", "echo " + name);
    std::string const named = version.empty() ? std::string() : "version\t=\t" + version + "\n";
    nxatest::writeFile(folder + "/Manifest", "name\t=\t" + name + "\n" + named + "architecture\t=\tnoarch\n");
    return folder;
}

TEST_F(Nxapack, ASignedPackageVerifiesWithMinisignAndNamesTheNewestModuleVersion) {
    ASSERT_EQ(nxatest::shell("cd " + scratchDir() + " && minisign -G -W -p k.pub -s k.key").status, 0);
    std::string const alpha = versionedModule(src_, "alpha", "1.9");
    std::string const beta = versionedModule(src_, "beta", "1.10");
    PackRun const r = pack("--sign " + quoted(scratchDir() + "/k.key") + " " + quoted(out_) + " " +
                           quoted(alpha) + " " + quoted(beta));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("nxapack: signed " + out_ + " as version 1.10 with key "), std::string::npos)
        << r.out;
    nxatest::ShellResult const checked =
        nxatest::shell("minisign -V -p " + quoted(scratchDir() + "/k.pub") + " -m " + quoted(out_));
    EXPECT_EQ(checked.status, 0) << checked.output;
    EXPECT_NE(checked.output.find("\tfile:out.zip\tversion:1.10"), std::string::npos) << checked.output;
}

TEST_F(Nxapack, AnEncryptedKeyTakesItsPasswordFromTheFileAndAVersionTag) {
    std::string const key = scratchDir() + "/e.key";
    ASSERT_EQ(
        nxatest::shell("cd " + scratchDir() + " && printf 'right\\nright\\n' | minisign -G -p e.pub -s e.key")
            .status,
        0);
    nxatest::writeFile(scratchDir() + "/right", "right\n");
    nxatest::writeFile(scratchDir() + "/wrong", "wrong\n");
    std::string const alpha = versionedModule(src_, "alpha", "");
    std::string const args = quoted(out_) + " " + quoted(alpha);
    PackRun const wrong = pack("--sign " + quoted(key) + " --sign-password-file " +
                               quoted(scratchDir() + "/wrong") + " --version-tag 3 " + args);
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err, "nxapack: wrong password or damaged secret key\n");
    PackRun const untagged = pack("--sign " + quoted(key) + " --sign-password-file " +
                                  quoted(scratchDir() + "/right") + " " + args);
    EXPECT_EQ(untagged.status, 1);
    EXPECT_EQ(untagged.err,
              "nxapack: no module names a version (dotted numbers): give the package's with --version-tag\n");
    PackRun const right = pack("--sign " + quoted(key) + " --sign-password-file " +
                               quoted(scratchDir() + "/right") + " --version-tag 3.0.1 " + args);
    ASSERT_EQ(right.status, 0) << right.err;
    nxatest::ShellResult const checked =
        nxatest::shell("minisign -V -p " + quoted(scratchDir() + "/e.pub") + " -m " + quoted(out_));
    EXPECT_EQ(checked.status, 0) << checked.output;
    EXPECT_NE(checked.output.find("version:3.0.1"), std::string::npos) << checked.output;
}

TEST_F(Nxapack, AKeyThatIsNoMinisignKeyIsRefused) {
    nxatest::writeFile(scratchDir() + "/bad.key", "untrusted comment: x\nnot base64\n");
    std::string const alpha = writeModule(src_, "alpha", "noarch", "echo alpha");
    PackRun const r = pack("--sign " + quoted(scratchDir() + "/bad.key") + " --version-tag 1 " +
                           quoted(out_) + " " + quoted(alpha));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "nxapack: not a minisign secret key\n");
    EXPECT_FALSE(exists(out_ + ".minisig"));
}

}  // namespace
}  // namespace e2e
