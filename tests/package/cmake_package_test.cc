// The CMake package of an installed tree: find_package(nxaclient CONFIG) in
// <prefix>/lib/<multiarch>/cmake/nxaclient gives nxaclient::nxaclient, which
// brings nxaclient::vlplatform, the include directory and C++17, and nothing
// that asks the consumer for libzip or libmosquitto; the version file takes
// the same 0.y only while the version is 0.y, the same major version after.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "installed_tree.h"
#include "sandbox.h"
#include "shell.h"

namespace pkgtest {
namespace {

// A consumer project that finds the package (the version in WANT) among the
// prefixes given only, and prints what its targets carry as "nxa: KEY=VALUE"
// lines. It enables C++, as a consumer does: without a language CMake knows
// no library architecture and does not look in lib/<multiarch>.
constexpr char kProbe[] = R"(cmake_minimum_required(VERSION 3.18)
project(probe LANGUAGES CXX)
set(CMAKE_FIND_USE_CMAKE_SYSTEM_PATH OFF)
set(CMAKE_FIND_USE_SYSTEM_ENVIRONMENT_PATH OFF)
set(CMAKE_FIND_USE_PACKAGE_REGISTRY OFF)
set(CMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY OFF)
find_package(nxaclient ${WANT} CONFIG REQUIRED)
message(STATUS "nxa: version=${nxaclient_VERSION}")
message(STATUS "nxa: dir=${nxaclient_DIR}")
foreach(target nxaclient::nxaclient nxaclient::vlplatform)
  foreach(property TYPE INTERFACE_INCLUDE_DIRECTORIES INTERFACE_LINK_LIBRARIES INTERFACE_COMPILE_FEATURES)
    get_target_property(value ${target} ${property})
    message(STATUS "nxa: ${target} ${property}=${value}")
  endforeach()
  get_target_property(configs ${target} IMPORTED_CONFIGURATIONS)
  list(GET configs 0 config)
  get_target_property(location ${target} IMPORTED_LOCATION_${config})
  get_target_property(soname ${target} IMPORTED_SONAME_${config})
  message(STATUS "nxa: ${target} location=${location}")
  message(STATUS "nxa: ${target} soname=${soname}")
endforeach()
)";

// The "nxa: KEY=VALUE" lines of the probe's output.
std::map<std::string, std::string> probeValues(std::string const& output) {
    std::map<std::string, std::string> values;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        std::size_t const at = line.find("nxa: ");
        std::size_t const eq = line.find('=', at);
        if (at == std::string::npos || eq == std::string::npos) continue;
        values[line.substr(at + 5, eq - at - 5)] = line.substr(eq + 1);
    }
    return values;
}

class CMakePackage : public testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        prefix_ = freshDir("cmake-package");
        ASSERT_NO_FATAL_FAILURE(installInto(prefix_));
        probe_ = freshDir("probe");
        nxatest::writeFile(probe_ + "/CMakeLists.txt", kProbe);
    }

    // Configures the probe asking for `version` ("" for any).
    nxatest::ShellResult find(std::string const& version) {
        return configureConsumer(probe_, probe_ + "/build-" + std::to_string(++runs_), prefix_,
                                 "-DWANT=" + version);
    }

    std::string packageDir() const { return libDir(prefix_) + "/cmake/nxaclient"; }

    std::string prefix_;
    std::string probe_;
    int runs_ = 0;
};

TEST_F(CMakePackage, TargetsBringThePlatformLibraryTheHeadersAndCxx17) {
    nxatest::ShellResult const r = find("");
    ASSERT_EQ(r.status, 0) << r.output;
    std::map<std::string, std::string> v = probeValues(r.output);
    std::string const lib = libDir(prefix_);
    EXPECT_EQ(v["version"], projectVersion());
    EXPECT_EQ(v["dir"], packageDir());

    EXPECT_EQ(v["nxaclient::nxaclient TYPE"], "SHARED_LIBRARY");
    EXPECT_EQ(v["nxaclient::nxaclient INTERFACE_INCLUDE_DIRECTORIES"], prefix_ + "/include");
    EXPECT_EQ(v["nxaclient::nxaclient INTERFACE_LINK_LIBRARIES"], "nxaclient::vlplatform");
    EXPECT_EQ(v["nxaclient::nxaclient INTERFACE_COMPILE_FEATURES"], "cxx_std_17");
    EXPECT_EQ(v["nxaclient::nxaclient location"], lib + "/libnxaclient.so." + projectVersion());
    EXPECT_EQ(v["nxaclient::nxaclient soname"], "libnxaclient.so.0");

    // libzip and libmosquitto are linked into the shared library, not into its users.
    EXPECT_EQ(v["nxaclient::vlplatform TYPE"], "SHARED_LIBRARY");
    EXPECT_EQ(v["nxaclient::vlplatform INTERFACE_INCLUDE_DIRECTORIES"], prefix_ + "/include");
    EXPECT_EQ(v["nxaclient::vlplatform INTERFACE_LINK_LIBRARIES"], "value-NOTFOUND");
    EXPECT_EQ(v["nxaclient::vlplatform location"], lib + "/libvlplatform.so." + projectVersion());
    EXPECT_EQ(v["nxaclient::vlplatform soname"], "libvlplatform.so.0");

    EXPECT_TRUE(exists(v["nxaclient::nxaclient location"]));
    EXPECT_TRUE(exists(v["nxaclient::vlplatform location"]));
    EXPECT_TRUE(exists(prefix_ + "/include/nxaclient.h"));
    EXPECT_TRUE(exists(prefix_ + "/include/vlplatform/fd_set.h"));
}

TEST_F(CMakePackage, FilesNameNoPackageOfThePlatformsOwnDependencies) {
    nxatest::ShellResult const names = nxatest::shell("cd '" + packageDir() + "' && ls");
    ASSERT_EQ(names.status, 0) << names.output;
    EXPECT_NE(names.output.find("nxaclient-config.cmake\n"), std::string::npos) << names.output;
    EXPECT_NE(names.output.find("nxaclient-config-version.cmake\n"), std::string::npos) << names.output;
    EXPECT_NE(names.output.find("nxaclient-targets.cmake\n"), std::string::npos) << names.output;

    EXPECT_NE(names.output.find("nxahost-targets.cmake\n"), std::string::npos) << names.output;

    // Comments aside.
    nxatest::ShellResult const named =
        nxatest::shell("grep -i -n -E '^[^#]*(pkgconfig|pkg_check|zip|mosquitto|websockets|glib)' '" +
                       packageDir() + "'/*.cmake");
    EXPECT_EQ(named.status, 1) << "the package names the libraries' own dependencies:\n" << named.output;
    // The one package looked for is what the kit's headers include, and only for the kit.
    nxatest::ShellResult const looked =
        nxatest::shell("grep -h -E '^[^#]*find_dependency' '" + packageDir() + "'/*.cmake");
    EXPECT_EQ(trimmed(looked.output), "find_dependency(nlohmann_json 3)") << looked.output;
}

// A consumer of the host kit: the component nxahost, found with the system's
// own packages (nlohmann's JSON) besides the installed tree.
constexpr char kKitProbe[] = R"(cmake_minimum_required(VERSION 3.18)
project(kitprobe LANGUAGES CXX)
find_package(nxaclient CONFIG REQUIRED COMPONENTS ${WANT})
foreach(property TYPE INTERFACE_INCLUDE_DIRECTORIES INTERFACE_LINK_LIBRARIES INTERFACE_COMPILE_FEATURES)
  get_target_property(value nxaclient::nxahost ${property})
  message(STATUS "nxa: ${property}=${value}")
endforeach()
get_target_property(configs nxaclient::nxahost IMPORTED_CONFIGURATIONS)
list(GET configs 0 config)
get_target_property(location nxaclient::nxahost IMPORTED_LOCATION_${config})
get_target_property(soname nxaclient::nxahost IMPORTED_SONAME_${config})
message(STATUS "nxa: location=${location}")
message(STATUS "nxa: soname=${soname}")
)";

TEST_F(CMakePackage, TheHostKitIsTheComponentNxahostWithItsLibraryAndHeaders) {
    std::string const probe = freshDir("kit-probe");
    nxatest::writeFile(probe + "/CMakeLists.txt", kKitProbe);
    nxatest::ShellResult const r = configureConsumer(probe, probe + "/build", prefix_, "-DWANT=nxahost");
    ASSERT_EQ(r.status, 0) << r.output;
    std::map<std::string, std::string> v = probeValues(r.output);
    std::string const lib = libDir(prefix_);
    EXPECT_EQ(v["TYPE"], "SHARED_LIBRARY");
    EXPECT_EQ(v["INTERFACE_INCLUDE_DIRECTORIES"], prefix_ + "/include");
    EXPECT_EQ(v["INTERFACE_LINK_LIBRARIES"],
              "nxaclient::nxaclient;nxaclient::vlplatform;nlohmann_json::nlohmann_json");
    EXPECT_EQ(v["INTERFACE_COMPILE_FEATURES"], "cxx_std_17");
    EXPECT_EQ(v["location"], lib + "/libnxahost.so." + projectVersion());
    EXPECT_EQ(v["soname"], "libnxahost.so.0");
    EXPECT_TRUE(exists(v["location"]));
    EXPECT_TRUE(exists(prefix_ + "/include/nxahost/program_supervisor.h"));
    EXPECT_TRUE(exists(prefix_ + "/include/nxahost/control_server.h"));

    nxatest::ShellResult const unknown =
        configureConsumer(probe, probe + "/build-unknown", prefix_, "-DWANT=nothing");
    EXPECT_NE(unknown.status, 0) << unknown.output;
}

TEST_F(CMakePackage, VersionFileTakesTheSameReleaseSeriesOnly) {
    std::istringstream parts(projectVersion());
    int major = 0, minor = 0;
    char dot = 0;
    parts >> major >> dot >> minor;
    std::string const series = std::to_string(major) + "." + std::to_string(minor);

    // The same series, older and newer ones.
    std::vector<std::pair<std::string, bool>> cases = {
        {projectVersion(), true},
        {series, true},
        {std::to_string(major) + "." + std::to_string(minor + 1), false},
        {std::to_string(major + 1) + ".0", false},
    };
    if (major > 0) cases.push_back({std::to_string(major - 1) + ".0", false});
    // While the version is 0.y, an older y is no promise either.
    if (major == 0 && minor > 0) cases.push_back({"0." + std::to_string(minor - 1), false});
    if (major > 0 && minor > 0) cases.push_back({std::to_string(major) + ".0", true});

    for (auto const& [wanted, accepted] : cases) {
        nxatest::ShellResult const r = find(wanted);
        EXPECT_EQ(r.status == 0, accepted)
            << "find_package(nxaclient " << wanted << ") of " << projectVersion() << ":\n"
            << r.output;
        if (!accepted) {
            EXPECT_NE(r.output.find("compatible"), std::string::npos) << r.output;
        }
    }
}

}  // namespace
}  // namespace pkgtest
