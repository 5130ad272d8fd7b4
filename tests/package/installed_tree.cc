#include "installed_tree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <vector>

#include "sandbox.h"
#include "shell.h"

namespace pkgtest {

std::string freshDir(std::string const& what) {
    std::string pattern = "/var/opt/" + what + ".XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        ADD_FAILURE() << "cannot create " << pattern;
        return "/nonexistent";
    }
    return buf.data();
}

void installInto(std::string const& prefix, std::string const& env) {
    nxatest::ShellResult const r =
        nxatest::shell(env + " cmake --install '" + nxatest::binaryDir() + "' --prefix '" + prefix + "'");
    ASSERT_EQ(r.status, 0) << r.output;
}

std::string libDir(std::string const& prefix) {
    return prefix + "/" + NXA_INSTALL_LIBDIR;
}

std::string projectVersion() {
    return NXA_PROJECT_VERSION;
}

std::string sanitizeFlags() {
    return NXA_PACKAGE_SANITIZE_FLAGS;
}

std::string compiler() {
    return NXA_PACKAGE_CXX;
}

bool exists(std::string const& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

nxatest::ShellResult configureConsumer(std::string const& source, std::string const& build,
                                       std::string const& prefix, std::string const& args) {
    return nxatest::shell("env -u CMAKE_PREFIX_PATH cmake -S '" + source + "' -B '" + build +
                          "' -DCMAKE_PREFIX_PATH='" + prefix + "' " + args);
}

std::string trimmed(std::string const& text) {
    std::size_t const first = text.find_first_not_of(" \n");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \n") - first + 1);
}

}  // namespace pkgtest
