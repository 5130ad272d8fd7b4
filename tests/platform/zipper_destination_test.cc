// zipper::unZipWithDirs and its destination: it must name a folder of its
// own, so that a name like ".." or "." taken from a package can never make an
// archive unpack into the folder above or beside the one meant.
#include <gtest/gtest.h>
#include <sys/stat.h>

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
using filestest::writeZip;
using nxatest::readFile;

// Each test works in its own temporary root holding "work/x", an empty
// folder, and the archive "in.zip" with one file, "pkg/a.txt".
class ZipperDestination : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(root_.path().empty());
        ASSERT_EQ(nxatest::shell("mkdir -p '" + path("work/x") + "'").status, 0);
        writeZip(archive(), {{"pkg/a.txt", "alpha\n"}});
    }
    void TearDown() override { zipper::setDebug(0); }

    std::string path(std::string const& name) const { return root_ / name; }
    std::string archive() const { return path("in.zip"); }

    // Extracting `from` into `dest` must fail with EINVAL, give `reason` in
    // the trace line and leave the whole root as it was.
    void expectRefused(std::string const& from, std::string const& dest, std::string const& reason) {
        std::vector<std::string> const before = listTree(root_.path());
        nxatest::Capture out(1);
        zipper::setDebug(1);
        errno = 0;
        EXPECT_EQ(zipper::unZipWithDirs(from, dest, ""), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(out.release(),
                  "[WARNING] zipper::unZipWithDirs() " + from + " -> " + dest + ": failed: " + reason + "\n");
        EXPECT_EQ(listTree(root_.path()), before);
    }

    filestest::TempDir root_;
};

std::string const kDotDot = "refused destination: last component is \"..\"";
std::string const kDot = "refused destination: last component is \".\"";
std::string const kEmpty = "refused destination: last component is empty";

TEST_F(ZipperDestination, DotDotOfAnExistingFolderIsRefused) {
    expectRefused(archive(), path("work/x/.."), kDotDot);
}

TEST_F(ZipperDestination, DotDotOfAMissingFolderIsRefusedWithoutMakingIt) {
    expectRefused(archive(), path("work/missing/.."), kDotDot);
}

TEST_F(ZipperDestination, DotIsRefused) {
    expectRefused(archive(), path("work/x/."), kDot);
}

TEST_F(ZipperDestination, DotOfAMissingFolderIsRefusedWithoutMakingIt) {
    expectRefused(archive(), path("work/missing/."), kDot);
}

TEST_F(ZipperDestination, ATrailingSlashIsRefused) {
    expectRefused(archive(), path("work/x/"), kEmpty);
}

TEST_F(ZipperDestination, RepeatedTrailingSlashesAreRefused) {
    expectRefused(archive(), path("work/x//"), kEmpty);
}

TEST_F(ZipperDestination, DotFollowedByASlashIsRefused) {
    expectRefused(archive(), path("work/x/./"), kEmpty);
}

// The archive would be refused for its entry anyway; the reason in the trace
// line shows that the destination was refused first, and a missing check
// cannot write into the root directory or the working directory.
TEST_F(ZipperDestination, TheRootDirectoryIsRefused) {
    writeZip(path("hostile.zip"), {{"../evil", "evil\n"}});
    expectRefused(path("hostile.zip"), "/", kEmpty);
}

TEST_F(ZipperDestination, AnEmptyPathIsRefused) {
    writeZip(path("hostile.zip"), {{"../evil", "evil\n"}});
    expectRefused(path("hostile.zip"), "", kEmpty);
}

TEST_F(ZipperDestination, ARelativeDotIsRefused) {
    writeZip(path("hostile.zip"), {{"../evil", "evil\n"}});
    expectRefused(path("hostile.zip"), ".", kDot);
}

TEST_F(ZipperDestination, ARelativeDotDotIsRefused) {
    writeZip(path("hostile.zip"), {{"../evil", "evil\n"}});
    expectRefused(path("hostile.zip"), "..", kDotDot);
}

TEST_F(ZipperDestination, RepeatedSlashesInsideThePathAreAccepted) {
    ASSERT_EQ(zipper::unZipWithDirs(archive(), root_.path() + "//work///dest", ""), 0);
    EXPECT_EQ(readFile(path("work/dest/pkg/a.txt")), "alpha\n");
}

TEST_F(ZipperDestination, DotDotBeforeTheLastComponentIsTakenAsTheSystemTakesIt) {
    ASSERT_EQ(zipper::unZipWithDirs(archive(), path("work/x/../dest"), ""), 0);
    EXPECT_EQ(listTree(path("work")),
              (std::vector<std::string>{"d dest", "d dest/pkg", "d x", "f dest/pkg/a.txt 6"}));
}

TEST_F(ZipperDestination, ANameStartingWithDotsIsAFolderOfItsOwn) {
    ASSERT_EQ(zipper::unZipWithDirs(archive(), path("work/..."), ""), 0);
    ASSERT_EQ(zipper::unZipWithDirs(archive(), path("work/.hidden"), ""), 0);
    EXPECT_EQ(readFile(path("work/.../pkg/a.txt")), "alpha\n");
    EXPECT_EQ(readFile(path("work/.hidden/pkg/a.txt")), "alpha\n");
}

}  // namespace
