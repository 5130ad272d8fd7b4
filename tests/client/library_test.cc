// The library as a shared object: its soname, its versioned file, the links
// that lead to it and its one dependency of the project's own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "shell.h"

namespace {

// The directory the build wrote the library to, with its trailing '/'.
std::string libraryDir() {
    std::string const file = NXACLIENT_FILE;
    return file.substr(0, file.rfind('/') + 1);
}

std::string dynamicSection() {
    nxatest::ShellResult r = nxatest::shell(std::string("readelf -d '") + NXACLIENT_FILE + "'");
    EXPECT_EQ(r.status, 0) << r.output;
    return r.output;
}

// The name a tag such as "SONAME" gives in the dynamic section: what readelf
// shows between the brackets of its line; empty when there is no such line.
std::string dynamicEntry(std::string const& tag) {
    std::string const section = dynamicSection();
    std::size_t const at = section.find("(" + tag + ")");
    if (at == std::string::npos) return "";
    std::size_t const open = section.find('[', at);
    std::size_t const close = section.find(']', open);
    if (open == std::string::npos || close == std::string::npos) return "";
    return section.substr(open + 1, close - open - 1);
}

// Where the symbolic link `name` in the library's directory points; empty
// when it is no symbolic link.
std::string linkTarget(std::string const& name) {
    char target[4096];
    ssize_t const n = ::readlink((libraryDir() + name).c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

TEST(Library, SonameIsLibnxaclientSo0) {
    EXPECT_EQ(dynamicEntry("SONAME"), "libnxaclient.so.0") << dynamicSection();
}

TEST(Library, NeedsThePlatformLibraryBySoname) {
    EXPECT_NE(dynamicSection().find("(NEEDED)             Shared library: [libvlplatform.so.0]"),
              std::string::npos)
        << dynamicSection();
}

// What a program links against (libnxaclient.so) leads through the link the
// library names itself by (its soname, which the dynamic loader looks for) to
// the one file, whose name carries the project's full version.
TEST(Library, LinkNameLeadsThroughTheSonameToTheVersionedFile) {
    std::string const soname = dynamicEntry("SONAME");
    ASSERT_NE(soname, "") << dynamicSection();
    EXPECT_EQ(linkTarget("libnxaclient.so"), soname);
    EXPECT_EQ(linkTarget(soname), "libnxaclient.so." NXACLIENT_VERSION);
    std::string const versioned = libraryDir() + "libnxaclient.so." NXACLIENT_VERSION;
    struct stat st {};
    ASSERT_EQ(::lstat(versioned.c_str(), &st), 0) << versioned;
    EXPECT_TRUE(S_ISREG(st.st_mode)) << versioned << " is no regular file";
}

}  // namespace
