// nxapack OUT.zip MODULE_DIR_OR_ZIP...
//
// Makes the installable module package: OUT.zip holding one NAME.zip per
// module, each with the module's Manifest and program at its top level, as the
// host installs them into <modules dir>/NAME.
#include <nxahost/device.h>
#include <vlplatform/fs.h>
#include <vlplatform/zipper.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_source.h"

namespace {

// The help text, naming the package file the host installs.
std::string usage() {
    return std::string(
               "usage: nxapack OUT.zip MODULE_DIR_OR_ZIP...\n"
               "Packs modules into the package the host installs (") +
           nxahost::kPackageFile +
           "). Each module is a folder named\n"
           "like the module, holding its Manifest and its program (also named like the module), or a\n"
           "zip of such a folder (a development package from nxabuild is one).\n";
}

// A private scratch folder, removed with everything in it at the end.
class ScratchDir {
public:
    ScratchDir() {
        char const* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/nxapack.XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data()))
            throw std::runtime_error("cannot create a scratch folder: " + std::string(std::strerror(errno)));
        path_ = buf.data();
    }
    ~ScratchDir() { rmDir(path_, true); }
    std::string const& path() const { return path_; }

private:
    std::string path_;
};

void pack(std::string const& out, std::vector<std::string> const& inputs) {
    ScratchDir scratch;
    std::string const staged = scratch.path() + "/package";
    mkdirPath(staged, 0755);
    std::set<std::string> names;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        std::string const unpacked = scratch.path() + "/input" + std::to_string(i);
        ModuleSource const module = locateModule(inputs[i], unpacked);
        if (!names.insert(module.name).second)
            throw std::runtime_error("module " + module.name + " given twice");
        std::string const warning = checkModule(module);
        if (!warning.empty()) std::cerr << "nxapack: warning: " << warning << "\n";
        if (zipper::zipFolderContents(module.dir, staged + "/" + module.name + ".zip") != 0) {
            throw std::runtime_error("cannot zip module " + module.name + ": " + std::strerror(errno));
        }
        std::cout << "nxapack: module " << module.name << " from " << inputs[i] << "\n";
    }
    if (zipper::zipFolderContents(staged, out) != 0) {
        throw std::runtime_error("cannot write " + out + ": " + std::strerror(errno));
    }
    std::cout << "nxapack: wrote " << out << " with " << names.size() << " module(s)\n";
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::cout << usage();
        return 0;
    }
    if (argc < 3 || argv[1][0] == '-') {
        std::cerr << usage();
        return 2;
    }
    try {
        pack(argv[1], std::vector<std::string>(argv + 2, argv + argc));
        return 0;
    } catch (std::exception const& e) {
        std::cerr << "nxapack: " << e.what() << "\n";
        return 1;
    }
}
