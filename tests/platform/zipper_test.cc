// zipper: folders into archives and archives into folders, checked with the
// real zip and unzip commands; hostile and damaged archives; the trace line.
#include "vlplatform/zipper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "capture.h"
#include "files_support.h"
#include "shell.h"
#include "zip_builder.h"

namespace {

using filestest::EntrySpec;
using filestest::exists;
using filestest::listTree;
using filestest::modeOf;
using filestest::writeZip;
using nxatest::readFile;
using nxatest::shell;
using nxatest::writeFile;

std::string const kBinary = filestest::binaryContent(100000);

// Each test works in its own temporary root: "pkg" is the sample folder,
// "outside" an empty directory that no extraction may touch, "work/dest" the
// extraction target (two levels deep, so that "../" and "../../" stay inside
// the root and show up in its listing).
class ZipperTest : public ::testing::Test {
protected:
    void SetUp() override {
        umask(022);
        ASSERT_FALSE(root_.path().empty());
        ASSERT_EQ(mkdir(path("outside").c_str(), 0755), 0);
    }
    void TearDown() override { zipper::setDebug(0); }

    std::string path(std::string const& name) const { return root_ / name; }
    std::string dest() const { return path("work/dest"); }

    // The sample folder: text, an empty file, an executable, binary data two
    // levels down and an empty directory.
    void makeSample(std::string const& folder) {
        ASSERT_EQ(shell("mkdir -p '" + folder + "/bin' '" + folder + "/sub/deeper' '" + folder + "/emptydir'")
                      .status,
                  0);
        writeFile(folder + "/a.txt", "alpha\n", 0644);
        writeFile(folder + "/empty", "", 0600);
        writeFile(folder + "/bin/exe", "#!/bin/sh\necho hi\n", 0755);
        writeFile(folder + "/sub/deeper/data.bin", kBinary, 0644);
    }

    // What listTree shows for the sample folder under the name `top`.
    static std::vector<std::string> sampleTree(std::string const& top) {
        return {"d " + top,
                "d " + top + "/bin",
                "d " + top + "/emptydir",
                "d " + top + "/sub",
                "d " + top + "/sub/deeper",
                "f " + top + "/a.txt 6",
                "f " + top + "/bin/exe 18",
                "f " + top + "/empty 0",
                "f " + top + "/sub/deeper/data.bin 100000"};
    }

    // Checks content and modes of an extracted sample folder.
    static void expectSample(std::string const& folder) {
        EXPECT_EQ(readFile(folder + "/a.txt"), "alpha\n");
        EXPECT_EQ(readFile(folder + "/sub/deeper/data.bin"), kBinary);
        EXPECT_EQ(modeOf(folder + "/bin/exe"), 0755);
        EXPECT_EQ(modeOf(folder + "/a.txt"), 0644);
        EXPECT_EQ(modeOf(folder + "/empty"), 0600);
    }

    // Extracting `archive` must fail with `err` and leave the whole root as it was.
    void expectRefused(std::string const& archive, int err = EINVAL) {
        std::vector<std::string> const before = listTree(root_.path());
        errno = 0;
        EXPECT_EQ(zipper::unZipWithDirs(archive, dest(), ""), -1);
        EXPECT_EQ(errno, err);
        EXPECT_EQ(listTree(root_.path()), before);
    }

    filestest::TempDir root_;
};

// --- zipFolderAsFolder ---------------------------------------------------

TEST_F(ZipperTest, ZipHoldsTheFolderByItsLastComponentWithDirectoryEntries) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    auto listing = shell("unzip -Z1 '" + path("out.zip") + "'");
    ASSERT_EQ(listing.status, 0) << listing.output;
    EXPECT_EQ(listing.output,
              "pkg/\npkg/a.txt\npkg/bin/\npkg/bin/exe\npkg/empty\npkg/emptydir/\npkg/sub/\npkg/sub/deeper/\n"
              "pkg/sub/deeper/data.bin\n");
}

TEST_F(ZipperTest, ZipContentReadsBackWithUnzipPipe) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    EXPECT_EQ(shell("unzip -p '" + path("out.zip") + "' pkg/sub/deeper/data.bin").output, kBinary);
    EXPECT_EQ(shell("unzip -p '" + path("out.zip") + "' pkg/a.txt").output, "alpha\n");
    EXPECT_EQ(shell("unzip -p '" + path("out.zip") + "' pkg/empty").output, "");
    EXPECT_EQ(shell("unzip -tq '" + path("out.zip") + "'").status, 0);
}

TEST_F(ZipperTest, ZipKeepsModesForTheUnzipCommand) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(shell("unzip -q '" + path("out.zip") + "' -d '" + path("x") + "'").status, 0);
    EXPECT_EQ(listTree(path("x")), sampleTree("pkg"));
    expectSample(path("x/pkg"));
    EXPECT_EQ(shell("'" + path("x/pkg/bin/exe") + "'").output, "hi\n");
}

TEST_F(ZipperTest, RoundTripThroughUnZipWithDirsKeepsTreeContentAndModes) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), sampleTree("pkg"));
    expectSample(dest() + "/pkg");
    EXPECT_EQ(shell("'" + dest() + "/pkg/bin/exe'").output, "hi\n");
}

// --- zipFolderContents ---------------------------------------------------

TEST_F(ZipperTest, ContentsZipHoldsWhatIsInsideTheFolder) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderContents(path("pkg"), path("out.zip")), 0);
    auto listing = shell("unzip -Z1 '" + path("out.zip") + "'");
    ASSERT_EQ(listing.status, 0) << listing.output;
    EXPECT_EQ(listing.output,
              "a.txt\nbin/\nbin/exe\nempty\nemptydir/\nsub/\nsub/deeper/\nsub/deeper/data.bin\n");
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), dest(), ""), 0);
    expectSample(dest());
    EXPECT_EQ(shell("'" + dest() + "/bin/exe'").output, "hi\n");
}

TEST_F(ZipperTest, ContentsZipOfAnEmptyFolderFailsWithoutAnArchive) {
    ASSERT_EQ(mkdir(path("none").c_str(), 0755), 0);
    errno = 0;
    EXPECT_EQ(zipper::zipFolderContents(path("none"), path("out.zip")), -1);
    EXPECT_EQ(errno, ENOENT);
    struct stat st;
    EXPECT_NE(stat(path("out.zip").c_str(), &st), 0);
}

TEST_F(ZipperTest, ContentsZipOfAMissingFolderFails) {
    errno = 0;
    EXPECT_EQ(zipper::zipFolderContents(path("missing"), path("out.zip")), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ZipperTest, RoundTripKeepsModificationTimes) {
    makeSample(path("pkg"));
    ASSERT_EQ(shell("touch -m -d @1600000000 '" + path("pkg/a.txt") + "'").status, 0);
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), dest(), ""), 0);
    struct stat st;
    ASSERT_EQ(stat((dest() + "/pkg/a.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1600000000);
}

TEST_F(ZipperTest, ZipIgnoresTrailingSlashesOfTheFolder) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg") + "//", path("out.zip")), 0);
    EXPECT_EQ(shell("unzip -Z1 '" + path("out.zip") + "' | head -1").output, "pkg/\n");
}

TEST_F(ZipperTest, ZipOfDotUsesTheDirectorysRealName) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg") + "/.", path("out.zip")), 0);
    EXPECT_EQ(shell("unzip -Z1 '" + path("out.zip") + "' | head -1").output, "pkg/\n");
}

TEST_F(ZipperTest, ZipFollowsSymbolicLinksAndLeavesOutFifos) {
    ASSERT_EQ(mkdir(path("pkg").c_str(), 0755), 0);
    writeFile(path("pkg/a.txt"), "alpha\n", 0644);
    ASSERT_EQ(symlink("a.txt", path("pkg/alias").c_str()), 0);
    ASSERT_EQ(mkfifo(path("pkg/fifo").c_str(), 0644), 0);
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    EXPECT_EQ(shell("unzip -Z1 '" + path("out.zip") + "'").output, "pkg/\npkg/a.txt\npkg/alias\n");
    EXPECT_EQ(shell("unzip -p '" + path("out.zip") + "' pkg/alias").output, "alpha\n");
}

TEST_F(ZipperTest, ZipReplacesAnExistingArchive) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(mkdir(path("other").c_str(), 0755), 0);
    writeFile(path("other/only.txt"), "only\n");
    ASSERT_EQ(zipper::zipFolderAsFolder(path("other"), path("out.zip")), 0);
    EXPECT_EQ(shell("unzip -Z1 '" + path("out.zip") + "'").output, "other/\nother/only.txt\n");
}

TEST_F(ZipperTest, ZipReplacesAFileThatIsNotAnArchive) {
    makeSample(path("pkg"));
    writeFile(path("out.zip"), "not a zip archive");
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    EXPECT_EQ(shell("unzip -tq '" + path("out.zip") + "'").status, 0);
}

TEST_F(ZipperTest, ZipOfMissingFolderFailsWithENOENT) {
    errno = 0;
    EXPECT_EQ(zipper::zipFolderAsFolder(path("missing"), path("out.zip")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(path("out.zip")));
}

TEST_F(ZipperTest, ZipOfAFileFailsWithENOTDIR) {
    writeFile(path("file"), "x");
    errno = 0;
    EXPECT_EQ(zipper::zipFolderAsFolder(path("file"), path("out.zip")), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(exists(path("out.zip")));
}

TEST_F(ZipperTest, ZipIntoMissingDirectoryFailsWithENOENT) {
    makeSample(path("pkg"));
    errno = 0;
    EXPECT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("missing/out.zip")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(path("missing")));
}

TEST_F(ZipperTest, ZipFailureLeavesTheOldArchiveIntact) {
    makeSample(path("pkg"));
    writeFile(path("out.zip"), "old archive");
    ASSERT_EQ(symlink("nowhere", path("pkg/dangling").c_str()), 0);
    errno = 0;
    EXPECT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(readFile(path("out.zip")), "old archive");
    EXPECT_EQ(shell("ls -A '" + root_.path() + "'").output, "out.zip\noutside\npkg\n");
}

TEST_F(ZipperTest, ZipOfADirectoryLoopFailsWithELOOP) {
    makeSample(path("pkg"));
    ASSERT_EQ(symlink(".", path("pkg/sub/loop").c_str()), 0);
    errno = 0;
    EXPECT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(exists(path("out.zip")));
}

// As root the directory's mode does not stop a write, so the call runs in a
// child that has given up root.
TEST_F(ZipperTest, ZipIntoUnwritableDirectoryFailsWithEACCESAndKeepsTheOldArchive) {
    makeSample(path("pkg"));
    ASSERT_EQ(mkdir(path("ro").c_str(), 0755), 0);
    writeFile(path("ro/out.zip"), "old archive", 0644);
    ASSERT_EQ(chmod(path("ro").c_str(), 0555), 0);
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(100);
        errno = 0;
        int const result = zipper::zipFolderAsFolder(path("pkg"), path("ro/out.zip"));
        _exit(result == -1 ? errno : 101);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), EACCES);
    EXPECT_EQ(readFile(path("ro/out.zip")), "old archive");
    EXPECT_EQ(shell("ls -A '" + path("ro") + "'").output, "out.zip\n");
}

// --- unZipWithDirs: archives made elsewhere, destinations ------------------

TEST_F(ZipperTest, UnzipExtractsAnArchiveOfTheZipCommand) {
    makeSample(path("src/pkg"));
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -qr ../made.zip pkg").status, 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("made.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), sampleTree("pkg"));
    expectSample(dest() + "/pkg");
}

TEST_F(ZipperTest, UnzipCreatesParentsForArchivesWithoutDirectoryEntries) {
    makeSample(path("src/pkg"));
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -qrD ../made.zip pkg").status, 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("made.zip"), dest(), ""), 0);
    EXPECT_EQ(readFile(dest() + "/pkg/sub/deeper/data.bin"), kBinary);
    EXPECT_EQ(modeOf(dest() + "/pkg/bin/exe"), 0755);
}

TEST_F(ZipperTest, UnzipAcceptsDotComponents) {
    writeZip(path("in.zip"), {{"./pkg/./a.txt", "alpha\n"}, {"./", "", 0, true}});
    ASSERT_EQ(zipper::unZipWithDirs(path("in.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), (std::vector<std::string>{"d pkg", "f pkg/a.txt 6"}));
}

TEST_F(ZipperTest, UnzipWithoutUnixModesUsesTheUmask) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}});
    ASSERT_EQ(shell("unzip -Z '" + path("in.zip") + "' pkg/a.txt").output.substr(0, 10),
              "-rw----   ");  // MS-DOS attributes only
    ASSERT_EQ(zipper::unZipWithDirs(path("in.zip"), dest(), ""), 0);
    EXPECT_EQ(readFile(dest() + "/pkg/a.txt"), "alpha\n");
    EXPECT_EQ(modeOf(dest() + "/pkg/a.txt"), 0644);
    EXPECT_EQ(modeOf(dest() + "/pkg"), 0755);
}

TEST_F(ZipperTest, UnzipDropsSetIdBitsAndGivesDirectoriesTheOwnersAccess) {
    writeZip(path("in.zip"), {{"pkg", "", S_IFDIR | 0500, true}, {"pkg/tool", "x", S_IFREG | 04755}});
    ASSERT_EQ(zipper::unZipWithDirs(path("in.zip"), dest(), ""), 0);
    EXPECT_EQ(modeOf(dest() + "/pkg/tool"), 0755);
    EXPECT_EQ(modeOf(dest() + "/pkg"), 0700);
}

TEST_F(ZipperTest, UnzipCreatesTheDestinationWithItsParents) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), path("a/b/c"), ""), 0);
    EXPECT_EQ(listTree(path("a/b/c")), sampleTree("pkg"));
}

TEST_F(ZipperTest, UnzipOverwritesFilesAndMergesDirectoriesOfTheDestination) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(shell("mkdir -p '" + dest() + "/pkg/sub'").status, 0);
    writeFile(dest() + "/pkg/a.txt", "old content that is longer\n", 0600);
    writeFile(dest() + "/pkg/sub/kept.txt", "kept\n");
    writeFile(dest() + "/other.txt", "other\n");
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), dest(), ""), 0);
    expectSample(dest() + "/pkg");
    EXPECT_EQ(readFile(dest() + "/pkg/sub/kept.txt"), "kept\n");
    EXPECT_EQ(readFile(dest() + "/other.txt"), "other\n");
    EXPECT_EQ(shell("ls -A '" + dest() + "'").output, "other.txt\npkg\n");
}

TEST_F(ZipperTest, UnzipReplacesASymbolicLinkInTheDestinationWithoutFollowingIt) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"file", "new\n"}});
    ASSERT_EQ(shell("mkdir -p '" + dest() + "'").status, 0);
    writeFile(path("outside/file"), "outside\n");
    ASSERT_EQ(symlink(path("outside").c_str(), (dest() + "/pkg").c_str()), 0);
    ASSERT_EQ(symlink(path("outside/file").c_str(), (dest() + "/file").c_str()), 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("in.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), (std::vector<std::string>{"d pkg", "f file 4", "f pkg/a.txt 6"}));
    EXPECT_EQ(listTree(path("outside")), (std::vector<std::string>{"f file 8"}));
    EXPECT_EQ(readFile(path("outside/file")), "outside\n");
}

TEST_F(ZipperTest, UnzipReplacesADirectoryByAFileAndAFileByADirectory) {
    writeZip(path("in.zip"), {{"was-dir", "file now\n"}, {"was-file/inner", "inner\n"}});
    ASSERT_EQ(shell("mkdir -p '" + dest() + "/was-dir/deep'").status, 0);
    writeFile(dest() + "/was-dir/deep/x", "x");
    writeFile(dest() + "/was-file", "file\n");
    ASSERT_EQ(zipper::unZipWithDirs(path("in.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()),
              (std::vector<std::string>{"d was-file", "f was-dir 9", "f was-file/inner 6"}));
}

TEST_F(ZipperTest, UnzipIntoAFileFailsWithENOTDIR) {
    writeZip(path("in.zip"), {{"a.txt", "alpha\n"}});
    writeFile(path("work"), "a file\n");
    expectRefused(path("in.zip"), ENOTDIR);
    EXPECT_EQ(readFile(path("work")), "a file\n");
}

TEST_F(ZipperTest, UnzipUsesThePassword) {
    makeSample(path("src/pkg"));
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -qr -P secret ../locked.zip pkg").status, 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("locked.zip"), dest(), "secret"), 0);
    EXPECT_EQ(listTree(dest()), sampleTree("pkg"));
    expectSample(dest() + "/pkg");
}

TEST_F(ZipperTest, UnzipOfAnEncryptedArchiveWithoutPasswordFailsWithEINVAL) {
    makeSample(path("src/pkg"));
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -qr -P secret ../locked.zip pkg").status, 0);
    expectRefused(path("locked.zip"), EINVAL);
}

// The check byte of the old zip encryption lets one wrong password in 256
// through to a data error, so only the result and the untouched tree are fixed.
TEST_F(ZipperTest, UnzipWithAWrongPasswordFailsAndWritesNothing) {
    makeSample(path("src/pkg"));
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -qr -P secret ../locked.zip pkg").status, 0);
    std::vector<std::string> const before = listTree(root_.path());
    EXPECT_EQ(zipper::unZipWithDirs(path("locked.zip"), dest(), "wrong"), -1);
    EXPECT_EQ(listTree(root_.path()), before);
}

TEST_F(ZipperTest, UnzipOfAnArchiveWithoutEntriesSucceedsWithAnEmptyDestination) {
    writeFile(path("none.zip"), std::string("PK\x05\x06", 4) + std::string(18, '\0'));
    std::vector<std::string> const before = listTree(root_.path());
    EXPECT_EQ(zipper::unZipWithDirs(path("none.zip"), dest(), ""), 0);
    struct stat st;
    ASSERT_EQ(stat(dest().c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(rmdir(dest().c_str()), 0);  // empty
    EXPECT_EQ(rmdir(path("work").c_str()), 0);
    EXPECT_EQ(listTree(root_.path()), before);
}

// --- unZipWithDirs: refused archives --------------------------------------

TEST_F(ZipperTest, UnzipRefusesAnAbsoluteEntryName) {
    writeZip(path("in.zip"), {{"good.txt", "good\n"}, {path("outside/evil"), "evil\n"}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesADotDotEntry) {
    writeZip(path("in.zip"), {{"good.txt", "good\n"}, {"../evil", "evil\n"}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesADotDotInsideTheName) {
    writeZip(path("in.zip"), {{"a/good.txt", "good\n"}, {"a/../../b", "evil\n"}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesADotDotDirectoryEntry) {
    writeZip(path("in.zip"), {{"good.txt", "good\n"}, {"../../outside/made", "", 0, true}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesABackslashInAName) {
    writeZip(path("in.zip"), {{"good.txt", "good\n"}, {"..\\evil", "evil\n"}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesABackslashWithoutDotDot) {
    writeZip(path("in.zip"), {{"dir\\file", "evil\n"}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesTheScratchFolderPrefix) {
    writeZip(path("in.zip"), {{".nxa-unzip-abc/file", "x\n"}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusesASymbolicLinkPointingOutside) {
    ASSERT_EQ(mkdir(path("src").c_str(), 0755), 0);
    writeFile(path("src/good.txt"), "good\n");
    ASSERT_EQ(symlink("/etc", path("src/x").c_str()), 0);
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -q --symlinks ../ln.zip good.txt x").status, 0);
    ASSERT_EQ(shell("unzip -Z '" + path("ln.zip") + "' x").output.substr(0, 1), "l");
    expectRefused(path("ln.zip"));
}

// Links are refused even when they stay inside the destination: a package
// has no use for them, and a link among the entries could redirect a later one.
TEST_F(ZipperTest, UnzipRefusesASymbolicLinkPointingInsideTheDestination) {
    ASSERT_EQ(mkdir(path("src").c_str(), 0755), 0);
    writeFile(path("src/data.txt"), "data\n");
    ASSERT_EQ(symlink("data.txt", path("src/link").c_str()), 0);
    ASSERT_EQ(shell("cd '" + path("src") + "' && zip -q --symlinks ../ln.zip data.txt link").status, 0);
    expectRefused(path("ln.zip"));
}

TEST_F(ZipperTest, UnzipRefusesASymbolicLinkMadeWithLibzip) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"pkg/link", "../../outside", S_IFLNK | 0777}});
    expectRefused(path("in.zip"));
}

TEST_F(ZipperTest, UnzipRefusalLeavesAnExistingDestinationAsItWas) {
    ASSERT_EQ(shell("mkdir -p '" + dest() + "'").status, 0);
    writeFile(dest() + "/old.txt", "old\n");
    writeZip(path("in.zip"), {{"old.txt", "new\n"}, {"../evil", "evil\n"}});
    expectRefused(path("in.zip"));
    EXPECT_EQ(readFile(dest() + "/old.txt"), "old\n");
}

// --- unZipWithDirs: damaged input -----------------------------------------

TEST_F(ZipperTest, UnzipOfATruncatedArchiveFailsWithEINVAL) {
    makeSample(path("pkg"));
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    std::string const bytes = readFile(path("out.zip"));
    writeFile(path("out.zip"), bytes.substr(0, bytes.size() / 2));
    expectRefused(path("out.zip"));
}

TEST_F(ZipperTest, UnzipOfCorruptDeflatedDataFailsWithEIOAndLeavesNothing) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"pkg/data.bin", kBinary}});
    std::string bytes = readFile(path("in.zip"));
    std::size_t const data = filestest::entryDataOffset(bytes, "pkg/data.bin");
    ASSERT_NE(data, std::string::npos);
    bytes[data + 1000] = static_cast<char>(bytes[data + 1000] ^ 0x55);
    writeFile(path("in.zip"), bytes);
    expectRefused(path("in.zip"), EIO);
}

TEST_F(ZipperTest, UnzipOfAStoredEntryWithACrcErrorFailsWithEIOAndLeavesNothing) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"pkg/data.bin", kBinary, 0, false, true}});
    std::string bytes = readFile(path("in.zip"));
    std::size_t const data = filestest::entryDataOffset(bytes, "pkg/data.bin");
    ASSERT_NE(data, std::string::npos);
    bytes[data + kBinary.size() - 1] = static_cast<char>(bytes[data + kBinary.size() - 1] ^ 1);
    writeFile(path("in.zip"), bytes);
    expectRefused(path("in.zip"), EIO);
}

TEST_F(ZipperTest, UnzipOfCorruptDataKeepsWhatTheDestinationHeld) {
    ASSERT_EQ(shell("mkdir -p '" + dest() + "/pkg'").status, 0);
    writeFile(dest() + "/pkg/a.txt", "old\n");
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"pkg/data.bin", kBinary, 0, false, true}});
    std::string bytes = readFile(path("in.zip"));
    std::size_t const data = filestest::entryDataOffset(bytes, "pkg/data.bin");
    ASSERT_NE(data, std::string::npos);
    bytes[data] = static_cast<char>(bytes[data] ^ 1);
    writeFile(path("in.zip"), bytes);
    expectRefused(path("in.zip"), EIO);
    EXPECT_EQ(readFile(dest() + "/pkg/a.txt"), "old\n");
}

// Decompression goes on past the declared size; extraction stops there.
TEST_F(ZipperTest, UnzipOfAnEntryLongerThanDeclaredFailsAndLeavesNothing) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"pkg/data.bin", kBinary}});
    std::string bytes = readFile(path("in.zip"));
    ASSERT_TRUE(filestest::patchDeclaredSize(bytes, "pkg/data.bin", 1000));
    writeFile(path("in.zip"), bytes);
    nxatest::Capture out(1);
    zipper::setDebug(1);
    expectRefused(path("in.zip"), EIO);
    EXPECT_EQ(out.release(), "[WARNING] zipper::unZipWithDirs() " + path("in.zip") + " -> " + dest() +
                                 ": failed: entry \"pkg/data.bin\" is longer than declared\n");
}

TEST_F(ZipperTest, UnzipOfAnEntryShorterThanDeclaredFailsAndLeavesNothing) {
    writeZip(path("in.zip"), {{"pkg/a.txt", "alpha\n"}, {"pkg/data.bin", kBinary}});
    std::string bytes = readFile(path("in.zip"));
    ASSERT_TRUE(filestest::patchDeclaredSize(bytes, "pkg/data.bin", 200000));
    writeFile(path("in.zip"), bytes);
    nxatest::Capture out(1);
    zipper::setDebug(1);
    expectRefused(path("in.zip"), EIO);
    EXPECT_EQ(out.release(), "[WARNING] zipper::unZipWithDirs() " + path("in.zip") + " -> " + dest() +
                                 ": failed: entry \"pkg/data.bin\" is shorter than declared\n");
}

TEST_F(ZipperTest, UnzipOfAFileThatIsNotAnArchiveFailsWithEINVAL) {
    writeFile(path("text.zip"), "this is plain text, not an archive\n");
    expectRefused(path("text.zip"));
}

TEST_F(ZipperTest, UnzipOfAnEmptyFileFailsWithEINVAL) {
    writeFile(path("empty.zip"), "");
    expectRefused(path("empty.zip"));
}

TEST_F(ZipperTest, UnzipOfAMissingArchiveFailsWithENOENT) {
    expectRefused(path("missing.zip"), ENOENT);
}

// --- setDebug ---------------------------------------------------------------

TEST_F(ZipperTest, DebugLevelZeroWritesOnlyWhyACallFailed) {
    makeSample(path("pkg"));
    nxatest::Capture out(1);
    zipper::setDebug(0);
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), dest(), ""), 0);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(zipper::unZipWithDirs(path("missing.zip"), dest(), ""), -1);
    EXPECT_EQ(
        out.release().rfind(
            "[WARNING] zipper::unZipWithDirs() " + path("missing.zip") + " -> " + dest() + ": failed: ", 0),
        0u);
}

TEST_F(ZipperTest, DebugLevelOneWritesOneLinePerCall) {
    makeSample(path("pkg"));
    nxatest::Capture out(1);
    zipper::setDebug(1);
    ASSERT_EQ(zipper::zipFolderAsFolder(path("pkg"), path("out.zip")), 0);
    ASSERT_EQ(zipper::unZipWithDirs(path("out.zip"), dest(), ""), 0);
    EXPECT_EQ(out.release(), "[DEBUG] zipper::zipFolderAsFolder() " + path("pkg") + " -> " + path("out.zip") +
                                 ": 9 entries\n"
                                 "[DEBUG] zipper::unZipWithDirs() " +
                                 path("out.zip") + " -> " + dest() + ": 9 entries\n");
}

TEST_F(ZipperTest, WarningLineNamesTheReasonOfAFailure) {
    writeZip(path("in.zip"), {{"good.txt", "good\n"}, {"../e\nvil", "evil\n"}});
    nxatest::Capture out(1);
    zipper::setDebug(2);
    EXPECT_EQ(zipper::zipFolderAsFolder(path("missing"), path("out.zip")), -1);
    EXPECT_EQ(zipper::unZipWithDirs(path("in.zip"), dest(), ""), -1);
    EXPECT_EQ(out.release(), "[WARNING] zipper::zipFolderAsFolder() " + path("missing") + " -> " +
                                 path("out.zip") + ": failed: cannot stat " + path("missing") +
                                 ": No such file or directory\n"
                                 "[WARNING] zipper::unZipWithDirs() " +
                                 path("in.zip") + " -> " + dest() +
                                 ": failed: refused entry \"../e\\x0avil\": \"..\" component\n");
}

}  // namespace
