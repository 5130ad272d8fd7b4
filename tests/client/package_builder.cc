#include "package_builder.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "shell.h"

namespace nxaclienttest {

TempDir::TempDir() {
    char pattern[] = "/tmp/nxa-client-test.XXXXXX";
    char* made = mkdtemp(pattern);
    if (made) path_ = made;
}

TempDir::~TempDir() {
    if (!path_.empty()) nxatest::shell("rm -rf '" + path_ + "'");
}

std::string manifestText(std::string const& name, std::string const& arch) {
    return "# Development package created by vllib 11.1.0.4\n"
           "name\t\t=\t" +
           name +
           "\n"
           "version\t\t=\t1.0\n"
           "minFWVersion\t=\t0.0\n"
           "architecture\t=\t" +
           arch + "\n";
}

std::string makeModuleZip(std::string const& staging, std::string const& name, std::string const& arch,
                          std::string const& greeting) {
    return makeModuleZipRunning(staging, name, arch, "printf '%s' '" + greeting + "'\nexec sleep 1000");
}

std::string makeModuleZipRunning(std::string const& staging, std::string const& name, std::string const& arch,
                                 std::string const& body) {
    std::string const dir = staging + "/" + name;
    mkdir(dir.c_str(), 0755);
    if (!arch.empty()) nxatest::writeFile(dir + "/Manifest", manifestText(name, arch));
    nxatest::writeFile(dir + "/" + name, "#!/bin/sh\n" + body + "\n", 0755);
    std::string const archive = staging + "/" + name + ".zip";
    nxatest::ShellResult r =
        nxatest::shell("cd '" + dir + "' && rm -f '" + archive + "' && zip -q -r '" + archive + "' .");
    EXPECT_EQ(r.status, 0) << r.output;
    return archive;
}

void makePackage(std::string const& staging, std::string const& package,
                 std::vector<std::string> const& files) {
    std::string command = "cd '" + staging + "' && rm -f '" + package + "' && zip -q -r '" + package + "'";
    for (std::string const& f : files) command += " '" + f + "'";
    nxatest::ShellResult r = nxatest::shell(command);
    EXPECT_EQ(r.status, 0) << r.output;
}

std::vector<std::string> listDir(std::string const& dir) {
    std::vector<std::string> names;
    DIR* stream = opendir(dir.c_str());
    if (!stream) return names;
    while (dirent* e = readdir(stream)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace nxaclienttest
