// The pkg-config files of an installed tree: they name the prefix the tree
// was installed to (not the one the build was configured with), the multiarch
// library directory, both libraries for nxaclient and nothing of what the
// platform library uses itself; a staged install (DESTDIR) names the final
// prefix and writes nothing there.
#include <gtest/gtest.h>

#include "installed_tree.h"
#include "sandbox.h"
#include "shell.h"

namespace pkgtest {
namespace {

// pkg-config's answer, looking into `prefix`'s files only: a module the files
// require that the prefix does not hold (libzip, say) makes it fail.
nxatest::ShellResult pkgConfig(std::string const& prefix, std::string const& args) {
    return nxatest::shell("PKG_CONFIG_LIBDIR='" + libDir(prefix) +
                          "/pkgconfig' PKG_CONFIG_PATH= pkg-config " + args);
}

// The answer's text when pkg-config succeeded; the failure otherwise.
std::string answer(std::string const& prefix, std::string const& args) {
    nxatest::ShellResult const r = pkgConfig(prefix, args);
    return r.status == 0 ? trimmed(r.output) : "failed (" + std::to_string(r.status) + "): " + r.output;
}

TEST(PkgConfig, FilesPointIntoThePrefixInstalledToWithBothLibraries) {
    NXA_REQUIRE_SANDBOX();
    std::string const prefix = freshDir("pkg-config");
    ASSERT_NO_FATAL_FAILURE(installInto(prefix));
    std::string const lib = libDir(prefix);

    EXPECT_EQ(answer(prefix, "--modversion nxaclient"), projectVersion());
    EXPECT_EQ(answer(prefix, "--modversion vlplatform"), projectVersion());
    EXPECT_EQ(answer(prefix, "--cflags nxaclient"), "-I" + prefix + "/include");
    EXPECT_EQ(answer(prefix, "--libs nxaclient"), "-L" + lib + " -lnxaclient -lvlplatform");
    EXPECT_EQ(answer(prefix, "--libs vlplatform"), "-L" + lib + " -lvlplatform");
    EXPECT_EQ(answer(prefix, "--print-requires nxaclient"), "vlplatform = " + projectVersion());
    EXPECT_EQ(answer(prefix, "--print-requires-private nxaclient"), "");
    EXPECT_EQ(answer(prefix, "--print-requires-private vlplatform"), "");
    EXPECT_EQ(answer(prefix, "--variable=libdir nxaclient"), lib);

    EXPECT_TRUE(exists(lib + "/libnxaclient.so"));
    EXPECT_TRUE(exists(lib + "/libvlplatform.so"));
    EXPECT_TRUE(exists(answer(prefix, "--variable=includedir nxaclient") + "/nxaclient.h"));
    EXPECT_TRUE(exists(answer(prefix, "--variable=includedir vlplatform") + "/vlplatform/vlpbus_client.h"));
}

TEST(PkgConfig, TheHostKitsFileNamesItsLibraryTheOthersAndWhatItsHeadersInclude) {
    NXA_REQUIRE_SANDBOX();
    std::string const prefix = freshDir("pkg-kit");
    ASSERT_NO_FATAL_FAILURE(installInto(prefix));
    std::string const lib = libDir(prefix);
    // The kit's headers include nlohmann's JSON, which the system provides.
    auto kit = [&](std::string const& args) {
        nxatest::ShellResult const r =
            nxatest::shell("PKG_CONFIG_PATH='" + lib + "/pkgconfig' pkg-config " + args + " nxahost");
        return r.status == 0 ? trimmed(r.output) : "failed: " + r.output;
    };
    EXPECT_EQ(kit("--modversion"), projectVersion());
    EXPECT_EQ(kit("--libs"), "-L" + lib + " -lnxahost -lnxaclient -lvlplatform");
    EXPECT_EQ(kit("--cflags"), "-I" + prefix + "/include");
    EXPECT_EQ(kit("--print-requires"), "nxaclient = " + projectVersion() + "\nnlohmann_json");
    EXPECT_EQ(kit("--print-requires-private"), "");
    EXPECT_TRUE(exists(lib + "/libnxahost.so"));
    EXPECT_TRUE(exists(prefix + "/include/nxahost/web_console.h"));
}

TEST(PkgConfig, TwoPrefixesInstalledFromOneBuildEachNameTheirOwn) {
    NXA_REQUIRE_SANDBOX();
    std::string const first = freshDir("pkg-first");
    std::string const second = freshDir("pkg-second");
    ASSERT_NO_FATAL_FAILURE(installInto(first));
    ASSERT_NO_FATAL_FAILURE(installInto(second));
    EXPECT_EQ(answer(first, "--variable=prefix nxaclient"), first);
    EXPECT_EQ(answer(first, "--variable=prefix vlplatform"), first);
    EXPECT_EQ(answer(second, "--variable=prefix nxaclient"), second);
    EXPECT_EQ(answer(second, "--variable=prefix vlplatform"), second);
}

TEST(PkgConfig, StagedInstallNamesTheFinalPrefixAndLeavesItAlone) {
    NXA_REQUIRE_SANDBOX();
    std::string const stage = freshDir("pkg-stage");
    // The sandbox's own, empty /opt/velmora: a file written there by mistake shows.
    ASSERT_NO_FATAL_FAILURE(installInto("/opt/velmora", "DESTDIR='" + stage + "'"));
    std::string const pc = libDir(stage + "/opt/velmora") + "/pkgconfig/nxaclient.pc";
    std::string const text = nxatest::readFile(pc);
    std::string const head = "prefix=/opt/velmora\nlibdir=${prefix}" + libDir("") + "\n";
    EXPECT_EQ(text.rfind(head, 0), 0u) << pc << ":\n" << text;
    EXPECT_TRUE(exists(libDir(stage + "/opt/velmora") + "/pkgconfig/vlplatform.pc"));
    EXPECT_EQ(nxatest::shell("ls -A /opt/velmora").output, "");
}

}  // namespace
}  // namespace pkgtest
