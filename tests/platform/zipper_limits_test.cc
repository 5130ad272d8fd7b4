// zipper::unZipWithDirs against decompression bombs: the unpack budget on the
// sizes an archive declares, the compression ratio an entry may declare, data
// that goes on past its declared size; zipper::unpackBudget on real file
// systems, a small tmpfs among them. The archives are made by the zip command
// from sparse files of zeros, so they are small and quick to make.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <string>
#include <vector>

#include "capture.h"
#include "files_support.h"
#include "shell.h"
#include "vlplatform/zipper.h"
#include "zip_builder.h"

namespace {

using filestest::listTree;
using nxatest::readFile;
using nxatest::shell;

constexpr unsigned long long kMiB = 1ULL << 20;

// Writes a file of `size` zero bytes (sparse: nothing is written to disk).
void writeZeros(std::string const& path, unsigned long long size) {
    ASSERT_EQ(shell("rm -f '" + path + "' && truncate -s " + std::to_string(size) + " '" + path + "'").status,
              0);
}

// Zips the files `names` of folder `dir` into `archive` with the zip command and
// its `options` (e.g. "-Z bzip2").
void zipFiles(std::string const& dir, std::string const& archive, std::string const& names,
              std::string const& options = "") {
    auto const made = shell("cd '" + dir + "' && zip -q " + options + " '" + archive + "' " + names);
    ASSERT_EQ(made.status, 0) << made.output;
}

// The compressed size that the central directory of `archive` declares for `name`.
unsigned long long compressedSizeOf(std::string const& archive, std::string const& name) {
    int error = 0;
    zip_t* za = zip_open(archive.c_str(), ZIP_RDONLY, &error);
    if (!za) return 0;
    zip_stat_t st;
    unsigned long long const size = zip_stat(za, name.c_str(), 0, &st) == 0 ? st.comp_size : 0;
    zip_discard(za);
    return size;
}

// Half of what statvfs reports as available on the file system of `path`.
unsigned long long halfAvailable(std::string const& path) {
    struct statvfs fs;
    if (statvfs(path.c_str(), &fs) != 0) return 0;
    return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize / 2;
}

// Each test works in its own temporary root: "src" holds the files to zip,
// "work/dest" is the extraction target.
class ZipperLimits : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(root_.path().empty());
        ASSERT_EQ(mkdir(path("src").c_str(), 0755), 0);
    }
    void TearDown() override {
        zipper::setUnpackBudget(0);
        zipper::setDebug(0);
    }

    std::string path(std::string const& name) const { return root_ / name; }
    std::string dest() const { return path("work/dest"); }

    // Extracting `archive` must fail with `err`, give `reason` in the trace
    // line and leave the whole root as it was.
    void expectRefused(std::string const& archive, int err, std::string const& reason) {
        std::vector<std::string> const before = listTree(root_.path());
        nxatest::Capture out(1);
        zipper::setDebug(1);
        errno = 0;
        EXPECT_EQ(zipper::unZipWithDirs(archive, dest(), ""), -1);
        EXPECT_EQ(errno, err);
        EXPECT_EQ(out.release(), "[WARNING] zipper::unZipWithDirs() " + archive + " -> " + dest() +
                                     ": failed: " + reason + "\n");
        EXPECT_EQ(listTree(root_.path()), before);
    }

    // The trace reason of an archive whose entries declare `total` bytes under `budget`.
    static std::string overBudget(unsigned long long total, unsigned long long budget) {
        return "refused archive: its entries declare " + std::to_string(total) +
               " bytes, over the unpack budget of " + std::to_string(budget);
    }

    filestest::TempDir root_;
};

// --- the unpack budget -----------------------------------------------------

TEST_F(ZipperLimits, AnEntryOverTheBudgetIsRefusedBeforeAnythingIsWritten) {
    writeZeros(path("src/zeros"), 64 * kMiB);
    zipFiles(path("src"), path("bomb.zip"), "zeros");
    ASSERT_LT(readFile(path("bomb.zip")).size(), 100000u);
    zipper::setUnpackBudget(16 * kMiB);
    expectRefused(path("bomb.zip"), EFBIG, overBudget(64 * kMiB, 16 * kMiB));
}

TEST_F(ZipperLimits, TheDefaultBudgetAdmitsTheSameEntry) {
    if (zipper::unpackBudget(dest()) < 64 * kMiB) GTEST_SKIP() << "less than 128 MiB available in /tmp";
    writeZeros(path("src/zeros"), 64 * kMiB);
    zipFiles(path("src"), path("bomb.zip"), "zeros");
    ASSERT_EQ(zipper::unZipWithDirs(path("bomb.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), std::vector<std::string>{"f zeros 67108864"});
    EXPECT_EQ(readFile(dest() + "/zeros"), std::string(64 * kMiB, '\0'));
}

TEST_F(ZipperLimits, TheBudgetIsSharedByAllEntries) {
    for (char const* name : {"a", "b", "c"}) writeZeros(path("src/") + name, 8 * kMiB);
    zipFiles(path("src"), path("three.zip"), "a b c");
    zipper::setUnpackBudget(16 * kMiB);
    expectRefused(path("three.zip"), EFBIG, overBudget(24 * kMiB, 16 * kMiB));
}

TEST_F(ZipperLimits, EntriesDeclaringExactlyTheBudgetAreAdmitted) {
    ASSERT_EQ(mkdir(path("src/dir").c_str(), 0755), 0);
    writeZeros(path("src/dir/a"), 8 * kMiB);
    writeZeros(path("src/dir/b"), 8 * kMiB);
    zipFiles(path("src"), path("two.zip"), "dir dir/a dir/b");
    zipper::setUnpackBudget(16 * kMiB);
    ASSERT_EQ(zipper::unZipWithDirs(path("two.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), (std::vector<std::string>{"d dir", "f dir/a 8388608", "f dir/b 8388608"}));
}

// An entry that declares 1 MiB but holds 64 MiB: the budget admits what is
// declared, extraction reads no more than that and fails on the rest.
TEST_F(ZipperLimits, AnEntryLongerThanItsDeclaredSizeStopsThereAndLeavesNothing) {
    writeZeros(path("src/zeros"), 64 * kMiB);
    zipFiles(path("src"), path("forged.zip"), "zeros");
    std::string bytes = readFile(path("forged.zip"));
    ASSERT_TRUE(filestest::patchDeclaredSize(bytes, "zeros", 1 << 20));
    nxatest::writeFile(path("forged.zip"), bytes);
    zipper::setUnpackBudget(2 * kMiB);
    expectRefused(path("forged.zip"), EIO, "entry \"zeros\" is longer than declared");
}

// --- the compression ratio -------------------------------------------------

// 200 MiB is within the default budget and far within the one set here: the
// ratio alone refuses it.
TEST_F(ZipperLimits, AnEntryOverTheRatioIsRefusedWhateverTheBudget) {
    writeZeros(path("src/zeros"), 200 * kMiB);
    zipFiles(path("src"), path("bomb.zip"), "zeros", "-Z bzip2");
    unsigned long long const packed = compressedSizeOf(path("bomb.zip"), "zeros");
    ASSERT_GT(packed, 0u);
    ASSERT_LT(packed, 2000u);
    std::string const reason = "refused entry \"zeros\": 209715200 bytes from " + std::to_string(packed) +
                               ", more than 2000 times its compressed size";
    zipper::setUnpackBudget(1ULL << 40);
    expectRefused(path("bomb.zip"), EINVAL, reason);
    zipper::setUnpackBudget(0);
    expectRefused(path("bomb.zip"), EINVAL, reason);
}

TEST_F(ZipperLimits, DeflatedZerosStayUnderTheRatio) {
    writeZeros(path("src/zeros"), 16 * kMiB);
    zipFiles(path("src"), path("zeros.zip"), "zeros");
    unsigned long long const packed = compressedSizeOf(path("zeros.zip"), "zeros");
    ASSERT_GT(packed, 0u);
    EXPECT_GT(16 * kMiB / packed, 1000u);  // as far as deflate goes
    ASSERT_EQ(zipper::unZipWithDirs(path("zeros.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), std::vector<std::string>{"f zeros 16777216"});
}

TEST_F(ZipperLimits, EntriesUpToOneMiBAreNeverRefusedForTheirRatio) {
    writeZeros(path("src/mib"), kMiB);
    nxatest::writeFile(path("src/empty"), "");
    nxatest::writeFile(path("src/few"), "abc");
    zipFiles(path("src"), path("small.zip"), "mib empty few", "-Z bzip2");
    ASSERT_LT(compressedSizeOf(path("small.zip"), "mib"), kMiB / 2000);
    ASSERT_EQ(zipper::unZipWithDirs(path("small.zip"), dest(), ""), 0);
    EXPECT_EQ(listTree(dest()), (std::vector<std::string>{"f empty 0", "f few 3", "f mib 1048576"}));
    EXPECT_EQ(readFile(dest() + "/mib"), std::string(kMiB, '\0'));
    EXPECT_EQ(readFile(dest() + "/few"), "abc");
}

TEST_F(ZipperLimits, OneByteOverOneMiBIsRefusedForItsRatio) {
    writeZeros(path("src/big"), kMiB + 1);
    nxatest::writeFile(path("src/few"), "abc");
    zipFiles(path("src"), path("big.zip"), "few big", "-Z bzip2");
    unsigned long long const packed = compressedSizeOf(path("big.zip"), "big");
    ASSERT_GT(packed, 0u);
    expectRefused(path("big.zip"), EINVAL,
                  "refused entry \"big\": 1048577 bytes from " + std::to_string(packed) +
                      ", more than 2000 times its compressed size");
}

// --- unpackBudget ----------------------------------------------------------

TEST_F(ZipperLimits, TheBudgetIsTheValueSetOrTwoHundredFiftySixMiB) {
    if (halfAvailable(root_.path()) < 4096 * kMiB) GTEST_SKIP() << "less than 8 GiB available in /tmp";
    EXPECT_EQ(zipper::unpackBudget(dest()), 256 * kMiB);
    zipper::setUnpackBudget(16 * kMiB);
    EXPECT_EQ(zipper::unpackBudget(dest()), 16 * kMiB);
    EXPECT_EQ(zipper::unpackBudget(root_.path()), 16 * kMiB);
    zipper::setUnpackBudget(1024 * kMiB);
    EXPECT_EQ(zipper::unpackBudget(dest()), 1024 * kMiB);
    zipper::setUnpackBudget(0);
    EXPECT_EQ(zipper::unpackBudget(dest()), 256 * kMiB);
}

// Runs `body` in a child process with a private mount namespace in which a
// tmpfs of 8 MiB is mounted on `dir`; returns what `body` returned, or "skip"
// when the child may not mount.
std::string inSmallTmpfs(std::string const& dir, std::string (*body)(std::string const&)) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return "no pipe";
    pid_t const child = fork();
    if (child == 0) {
        close(pipeFds[0]);
        std::string text = "skip";
        if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount("nxa-zip-test", dir.c_str(), "tmpfs", 0, "size=8m") == 0) {
            text = body(dir);
        }
        ssize_t const written = write(pipeFds[1], text.data(), text.size());
        _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    close(pipeFds[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "child failed";
}

// On the tmpfs at `dir`: half its space, then the budget for a destination
// not made yet under the default and under 1 GiB, then the result of
// unpacking `dir`/../six.zip there and what the tmpfs holds afterwards.
std::string budgetsInSmallTmpfs(std::string const& dir) {
    std::string const dest = dir + "/not/made/yet";
    std::string text = std::to_string(halfAvailable(dir)) + "\n";
    text += std::to_string(zipper::unpackBudget(dest)) + "\n";
    zipper::setUnpackBudget(1ULL << 30);
    text += std::to_string(zipper::unpackBudget(dest)) + "\n";
    zipper::setUnpackBudget(0);
    errno = 0;
    int const result = zipper::unZipWithDirs(dir + "/../six.zip", dest, "");
    text += std::to_string(result) + " " + std::to_string(errno) + "\n";
    return text + std::to_string(listTree(dir).size()) + "\n";
}

TEST_F(ZipperLimits, TheBudgetNeverExceedsHalfTheSpaceOfTheFileSystem) {
    writeZeros(path("src/zeros"), 6 * kMiB);
    zipFiles(path("src"), path("six.zip"), "zeros");
    ASSERT_EQ(mkdir(path("small").c_str(), 0755), 0);
    std::string const text = inSmallTmpfs(path("small"), budgetsInSmallTmpfs);
    if (text == "skip") GTEST_SKIP() << "cannot mount a tmpfs here";
    std::string const half = std::to_string(4 * kMiB);
    EXPECT_EQ(text, half + "\n" + half + "\n" + half + "\n-1 " + std::to_string(EFBIG) + "\n0\n");
}

}  // namespace
