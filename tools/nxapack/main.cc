// nxapack [--sign SECRET_KEY_FILE [--sign-password-file FILE]] [--version-tag V] OUT.zip MODULE_DIR_OR_ZIP...
//
// Makes the installable module package: OUT.zip holding one NAME.zip per
// module, each with the module's Manifest and program at its top level, as the
// host installs them into <modules dir>/NAME. With --sign, also OUT.zip.minisig,
// the package's signature in minisign's format, whose trusted comment carries
// the package's version.
#include <getopt.h>
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
#include "package_signing.h"

namespace {

// The help text, naming the package file the host installs.
std::string usage() {
    return std::string(
               "usage: nxapack [OPTION]... OUT.zip MODULE_DIR_OR_ZIP...\n"
               "Packs modules into the package the host installs (") +
           nxahost::kPackageFile +
           "). Each module is a folder named\n"
           "like the module, holding its Manifest and its program (also named like the module), or a\n"
           "zip of such a folder (a development package from nxabuild is one).\n"
           "\n"
           "  --sign SECRET_KEY_FILE       also write OUT.zip.minisig, the package's signature with this\n"
           "                               minisign secret key (minisign -G); its password is asked for on\n"
           "                               the terminal\n"
           "  --sign-password-file FILE    read the secret key's password from FILE instead\n"
           "  --version-tag VERSION        the package's version in the signature (default the highest\n"
           "                               module version in it)\n"
           "  --help                       show this text and exit\n";
}

struct Options {
    std::string out;
    std::vector<std::string> inputs;
    Signing signing;
};

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

// Writes the package; returns the modules' versions, for the signature.
std::vector<std::string> pack(std::string const& out, std::vector<std::string> const& inputs) {
    ScratchDir scratch;
    std::string const staged = scratch.path() + "/package";
    mkdirPath(staged, 0755);
    std::set<std::string> names;
    std::vector<std::string> versions;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        std::string const unpacked = scratch.path() + "/input" + std::to_string(i);
        ModuleSource const module = locateModule(inputs[i], unpacked);
        if (!names.insert(module.name).second)
            throw std::runtime_error("module " + module.name + " given twice");
        std::string const warning = checkModule(module);
        if (!warning.empty()) std::cerr << "nxapack: warning: " << warning << "\n";
        versions.push_back(moduleVersion(module));
        if (zipper::zipFolderContents(module.dir, staged + "/" + module.name + ".zip") != 0) {
            throw std::runtime_error("cannot zip module " + module.name + ": " + std::strerror(errno));
        }
        std::cout << "nxapack: module " << module.name << " from " << inputs[i] << "\n";
    }
    if (zipper::zipFolderContents(staged, out) != 0) {
        throw std::runtime_error("cannot write " + out + ": " + std::strerror(errno));
    }
    std::cout << "nxapack: wrote " << out << " with " << names.size() << " module(s)\n";
    return versions;
}

enum OptionId { kSign = 1, kPasswordFile, kVersionTag, kHelp };

option const kOptions[] = {
    {"sign", required_argument, nullptr, kSign},
    {"sign-password-file", required_argument, nullptr, kPasswordFile},
    {"version-tag", required_argument, nullptr, kVersionTag},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

// Reads the command line; the exit status to end with at once, or -1 to go on.
int parse(int argc, char* argv[], Options& options) {
    opterr = 0;
    int option;
    while ((option = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        switch (option) {
            case kSign:
                options.signing.secretKeyFile = optarg;
                break;
            case kPasswordFile:
                options.signing.passwordFile = optarg;
                break;
            case kVersionTag:
                options.signing.versionTag = optarg;
                break;
            case kHelp:
            case 'h':
                std::cout << usage();
                return 0;
            default:
                std::cerr << usage();
                return 2;
        }
    }
    if (argc - optind < 2 ||
        (options.signing.secretKeyFile.empty() &&
         (!options.signing.passwordFile.empty() || !options.signing.versionTag.empty()))) {
        std::cerr << usage();
        return 2;
    }
    options.out = argv[optind];
    options.inputs.assign(argv + optind + 1, argv + argc);
    return -1;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    int const status = parse(argc, argv, options);
    if (status >= 0) return status;
    try {
        std::vector<std::string> const versions = pack(options.out, options.inputs);
        if (!options.signing.secretKeyFile.empty()) signPackage(options.out, versions, options.signing);
        return 0;
    } catch (std::exception const& e) {
        std::cerr << "nxapack: " << e.what() << "\n";
        return 1;
    }
}
