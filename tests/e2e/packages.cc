#include "packages.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

namespace e2e {

std::string quoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string manifestText(std::string const& name, std::string const& arch) {
    return "# Development package created by vllib 11.1.0.4\nname\t\t=\t" + name +
           "\nversion\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\t" + arch + "\n";
}

std::string writeModule(std::string const& parent, std::string const& name, std::string const& arch,
                        std::string const& body) {
    std::string const dir = parent + "/" + name;
    nxatest::ShellResult const made = nxatest::shell("mkdir -p " + quoted(dir));
    EXPECT_EQ(made.status, 0) << made.output;
    nxatest::writeFile(dir + "/Manifest", manifestText(name, arch));
    nxatest::writeFile(dir + "/" + name, "#!/bin/sh\n" + body + "\n", 0755);
    return dir;
}

nxatest::ShellResult runPack(std::string const& out, std::vector<std::string> const& inputs) {
    std::string command = quoted(NXA_E2E_PACK) + " " + quoted(out);
    for (std::string const& input : inputs) command += " " + quoted(input);
    return nxatest::shell(command);
}

void installPackage(std::vector<std::string> const& inputs) {
    nxatest::ShellResult const r = runPack(kPackage, inputs);
    ASSERT_EQ(r.status, 0) << r.output;
}

void zipIn(std::string const& dir, std::string const& archive, std::string const& entries) {
    nxatest::ShellResult const r =
        nxatest::shell("cd " + quoted(dir) + " && zip -q -r " + quoted(archive) + " " + entries);
    ASSERT_EQ(r.status, 0) << r.output;
}

std::vector<std::string> listDir(std::string const& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (!d) return names;
    while (dirent* e = ::readdir(d)) {
        std::string const name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace e2e
