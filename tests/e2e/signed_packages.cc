#include "signed_packages.h"

#include <gtest/gtest.h>

#include "host_process.h"
#include "packages.h"
#include "shell.h"

namespace e2e {
namespace {

nxatest::ShellResult inScratch(std::string const& command) {
    return nxatest::shell("cd " + quoted(scratchDir()) + " && " + command);
}

}  // namespace

void makeKeyPair(std::string const& name, std::string const& dir) {
    std::string const pub = (dir.empty() ? scratchDir() : dir) + "/" + name + ".pub";
    nxatest::ShellResult const made = inScratch("minisign -G -W -p " + quoted(pub) + " -s " + name + ".key");
    ASSERT_EQ(made.status, 0) << made.output;
}

std::string printedKeyId(std::string const& pub) {
    std::string const text = nxatest::readFile(pub[0] == '/' ? pub : scratchDir() + "/" + pub);
    std::size_t const at = text.find("public key ");
    if (at == std::string::npos) return "";
    std::size_t const from = at + 11;
    return text.substr(from, text.find('\n', from) - from);
}

std::string packVersion(std::string const& package, std::string const& version,
                        std::vector<ModuleSource> const& modules) {
    std::vector<std::string> folders;
    for (ModuleSource const& module : modules) {
        std::string const folder =
            writeModule(scratchDir() + "/src/" + package, module.name, "noarch", module.body);
        nxatest::writeFile(folder + "/Manifest", "name\t=\t" + module.name + "\nversion\t=\t" + version +
                                                     "\narchitecture\t=\tnoarch\n");
        folders.push_back(folder);
    }
    std::string const file = scratchDir() + "/" + package + ".zip";
    nxatest::ShellResult const packed = runPack(file, folders);
    EXPECT_EQ(packed.status, 0) << packed.output;
    return file;
}

void signWithMinisign(std::string const& file, std::string const& key) {
    nxatest::ShellResult const signedIt = inScratch("minisign -S -s " + key + ".key -m " + quoted(file));
    ASSERT_EQ(signedIt.status, 0) << signedIt.output;
}

void deliver(std::string const& file) {
    std::string const signature = std::string(kPackage) + ".minisig";
    nxatest::ShellResult const copied = nxatest::shell(
        "cp " + quoted(file) + " " + kPackage + " && rm -f " + signature + " && { ! test -e " +
        quoted(file + ".minisig") + " || cp " + quoted(file + ".minisig") + " " + signature + "; }");
    ASSERT_EQ(copied.status, 0) << copied.output;
}

}  // namespace e2e
