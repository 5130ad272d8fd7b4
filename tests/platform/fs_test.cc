// mkdirPath, rmDir and isDirectory on a real file system.
#include "vlplatform/fs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "shell.h"
#include "vlplatform/exceptions.h"

namespace {

// A fresh directory under /tmp for one test, removed afterwards with rm -rf.
class FsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/nxa-fs-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
    }
    void TearDown() override { nxatest::shell("rm -rf '" + root + "'"); }

    std::string path(std::string const& rel) const { return root + "/" + rel; }
    bool exists(std::string const& rel) const {
        struct stat st;
        return lstat(path(rel).c_str(), &st) == 0;
    }
    bool dirExists(std::string const& rel) const {
        struct stat st;
        return lstat(path(rel).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    void file(std::string const& rel) const { nxatest::writeFile(path(rel), "content"); }
    void dir(std::string const& rel) const { ASSERT_EQ(mkdir(path(rel).c_str(), 0755), 0); }
    void link(std::string const& target, std::string const& rel) const {
        ASSERT_EQ(symlink(target.c_str(), path(rel).c_str()), 0);
    }

    std::string root;
};

}  // namespace

TEST_F(FsTest, MkdirPathCreatesNestedDirectories) {
    EXPECT_EQ(mkdirPath(path("a/b/c"), 0777), 0);
    EXPECT_TRUE(dirExists("a"));
    EXPECT_TRUE(dirExists("a/b"));
    EXPECT_TRUE(dirExists("a/b/c"));
}

TEST_F(FsTest, MkdirPathUsesTheMode) {
    mode_t old = umask(0);
    int rc = mkdirPath(path("m/n"), 0750);
    umask(old);
    ASSERT_EQ(rc, 0);
    struct stat st;
    ASSERT_EQ(stat(path("m/n").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    ASSERT_EQ(stat(path("m").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
}

TEST_F(FsTest, MkdirPathOfExistingDirectoryIsZero) {
    dir("x");
    EXPECT_EQ(mkdirPath(path("x"), 0777), 0);
    EXPECT_EQ(mkdirPath(root, 0777), 0);
    EXPECT_EQ(mkdirPath("/", 0777), 0);
}

TEST_F(FsTest, MkdirPathToleratesRepeatedAndTrailingSlashes) {
    EXPECT_EQ(mkdirPath(root + "//p///q/", 0777), 0);
    EXPECT_TRUE(dirExists("p/q"));
}

TEST_F(FsTest, MkdirPathCreatesRelativePaths) {
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(root.c_str()), 0);
    int rc = mkdirPath("rel/sub", 0777);
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(dirExists("rel/sub"));
}

TEST_F(FsTest, MkdirPathWithFileInTheWayFailsWithEexist) {
    file("f");
    errno = 0;
    EXPECT_EQ(mkdirPath(path("f"), 0777), -1);
    EXPECT_EQ(errno, EEXIST);
    errno = 0;
    EXPECT_EQ(mkdirPath(path("f/sub/deeper"), 0777), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(exists("f/sub"));
}

TEST_F(FsTest, MkdirPathOfEmptyPathFails) {
    errno = 0;
    EXPECT_EQ(mkdirPath("", 0777), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FsTest, MkdirPathFollowsLinkToDirectory) {
    dir("real");
    link(path("real"), "alias");
    EXPECT_EQ(mkdirPath(path("alias/inner"), 0777), 0);
    EXPECT_TRUE(dirExists("real/inner"));
}

TEST_F(FsTest, RmDirWithoutTopKeepsTheDirectory) {
    dir("d");
    dir("d/sub");
    dir("d/sub/deep");
    file("d/sub/deep/f");
    file("d/top");
    file("d/.hidden");
    EXPECT_EQ(rmDir(path("d"), false), 0);
    EXPECT_TRUE(dirExists("d"));
    EXPECT_FALSE(exists("d/sub"));
    EXPECT_FALSE(exists("d/top"));
    EXPECT_FALSE(exists("d/.hidden"));
}

TEST_F(FsTest, RmDirWithTopRemovesTheDirectory) {
    dir("d");
    dir("d/sub");
    file("d/sub/f");
    EXPECT_EQ(rmDir(path("d"), true), 0);
    EXPECT_FALSE(exists("d"));
}

TEST_F(FsTest, RmDirOfEmptyDirectory) {
    dir("e");
    EXPECT_EQ(rmDir(path("e"), false), 0);
    EXPECT_TRUE(dirExists("e"));
    EXPECT_EQ(rmDir(path("e"), true), 0);
    EXPECT_FALSE(exists("e"));
}

TEST_F(FsTest, RmDirRemovesLinksWithoutFollowingThem) {
    dir("outside");
    file("outside/precious");
    dir("outside/keepdir");
    dir("d");
    link(path("outside"), "d/to-dir");
    link(path("outside/precious"), "d/to-file");
    link(path("nowhere"), "d/dangling");
    dir("d/sub");
    link(path("outside"), "d/sub/again");
    EXPECT_EQ(rmDir(path("d"), true), 0);
    EXPECT_FALSE(exists("d"));
    EXPECT_TRUE(dirExists("outside"));
    EXPECT_TRUE(exists("outside/precious"));
    EXPECT_TRUE(dirExists("outside/keepdir"));
    EXPECT_EQ(nxatest::readFile(path("outside/precious")), "content");
}

TEST_F(FsTest, RmDirWithTopRemovesLinkInPlaceOfDirectory) {
    dir("target");
    file("target/f");
    link(path("target"), "alias");
    EXPECT_EQ(rmDir(path("alias"), true), 0);
    EXPECT_FALSE(exists("alias"));
    EXPECT_TRUE(exists("target/f"));
}

TEST_F(FsTest, RmDirWithoutTopEmptiesDirectoryNamedByLink) {
    dir("target");
    file("target/f");
    link(path("target"), "alias");
    EXPECT_EQ(rmDir(path("alias"), false), 0);
    EXPECT_TRUE(exists("alias"));
    EXPECT_TRUE(dirExists("target"));
    EXPECT_FALSE(exists("target/f"));
}

TEST_F(FsTest, RmDirOfMissingPathFailsWithEnoent) {
    errno = 0;
    EXPECT_EQ(rmDir(path("missing"), false), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(rmDir(path("missing"), true), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FsTest, RmDirOfFileFailsWithEnotdir) {
    file("f");
    errno = 0;
    EXPECT_EQ(rmDir(path("f"), true), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(exists("f"));
}

TEST_F(FsTest, RmDirLeavesNoDescriptorOpen) {
    int before = nxatest::openDescriptorCount();
    dir("d");
    dir("d/a");
    dir("d/a/b");
    file("d/a/b/f");
    EXPECT_EQ(rmDir(path("d"), true), 0);
    EXPECT_EQ(rmDir(path("d"), true), -1);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(FsTest, IsDirectoryTellsDirectoriesFromTheRest) {
    dir("d");
    file("f");
    link(path("d"), "to-dir");
    link(path("f"), "to-file");
    EXPECT_TRUE(isDirectory(path("d").c_str()));
    EXPECT_TRUE(isDirectory(path("to-dir").c_str()));
    errno = 0;
    EXPECT_FALSE(isDirectory(path("f").c_str()));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(isDirectory(path("to-file").c_str()));
}

TEST_F(FsTest, IsDirectoryOfMissingPathIsFalse) {
    file("f");
    errno = 0;
    EXPECT_FALSE(isDirectory(path("missing").c_str()));
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_FALSE(isDirectory(path("f/below-a-file").c_str()));
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FsTest, IsDirectoryThrowsOnOtherErrors) {
    link(path("loop-b"), "loop-a");
    link(path("loop-a"), "loop-b");
    std::string loop = path("loop-a");
    try {
        isDirectory(loop.c_str());
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), ELOOP);
        EXPECT_EQ(std::string(e.what()), "cannot stat " + loop + ": Too many levels of symbolic links");
    }
    std::string tooLong = root + "/" + std::string(300, 'n');
    EXPECT_THROW(isDirectory(tooLong.c_str()), IOException);
}

TEST_F(FsTest, IsDirectoryNothrowIsFalseOnAnyError) {
    dir("d");
    link(path("loop-b"), "loop-a");
    link(path("loop-a"), "loop-b");
    EXPECT_TRUE(isDirectory(path("d").c_str(), std::nothrow));
    errno = 0;
    EXPECT_FALSE(isDirectory(path("loop-a").c_str(), std::nothrow));
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(isDirectory(path("missing").c_str(), std::nothrow));
    std::string tooLong = root + "/" + std::string(300, 'n');
    EXPECT_FALSE(isDirectory(tooLong.c_str(), std::nothrow));
}
