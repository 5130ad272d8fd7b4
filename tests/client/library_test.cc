// The library as a shared object: its soname, its versioned file and its one
// dependency of the project's own.
#include <gtest/gtest.h>

#include "shell.h"

namespace {

std::string dynamicSection() {
    nxatest::ShellResult r = nxatest::shell(std::string("readelf -d '") + NXACLIENT_FILE + "'");
    EXPECT_EQ(r.status, 0) << r.output;
    return r.output;
}

TEST(Library, SonameIsLibnxaclientSo0) {
    EXPECT_NE(dynamicSection().find("(SONAME)             Library soname: [libnxaclient.so.0]"),
              std::string::npos)
        << dynamicSection();
}

TEST(Library, NeedsThePlatformLibraryBySoname) {
    EXPECT_NE(dynamicSection().find("(NEEDED)             Shared library: [libvlplatform.so.0]"),
              std::string::npos)
        << dynamicSection();
}

TEST(Library, FileNameCarriesTheFullVersion) {
    std::string const file = NXACLIENT_FILE;
    EXPECT_EQ(file.substr(file.rfind('/') + 1), "libnxaclient.so." NXACLIENT_VERSION);
}

}  // namespace
