#include "module_source.h"

#include <dirent.h>
#include <sys/stat.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/fs.h>
#include <vlplatform/ini_parser.h>
#include <vlplatform/zipper.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace {

std::string baseName(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool endsWith(std::string const& text, std::string const& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> entriesOf(std::string const& dir) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(dir.c_str()), closedir);
    if (!stream) return names;
    while (dirent const* e = readdir(stream.get())) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    return names;
}

ModuleSource extractZip(std::string const& input, std::string const& scratch) {
    if (zipper::unZipWithDirs(input, scratch, "") != 0) {
        throw std::runtime_error(input + ": not a usable zip archive");
    }
    std::vector<std::string> const top = entriesOf(scratch);
    if (top.size() == 1 && isDirectory((scratch + "/" + top[0]).c_str(), std::nothrow)) {
        return {top[0], scratch + "/" + top[0]};
    }
    std::string name = baseName(input);
    return {name.substr(0, name.size() - 4), scratch};
}

}  // namespace

ModuleSource locateModule(std::string const& input, std::string const& scratch) {
    if (isDirectory(input.c_str(), std::nothrow)) return {baseName(input), input};
    struct stat status;
    if (stat(input.c_str(), &status) != 0) throw std::runtime_error(input + ": no such folder or file");
    if (!endsWith(input, ".zip"))
        throw std::runtime_error(input + ": neither a module folder nor a .zip file");
    return extractZip(input, scratch);
}

std::string checkModule(ModuleSource const& module) {
    std::string const manifest = module.dir + "/Manifest";
    std::string const who = "module " + module.name + ": ";
    struct stat status;
    if (stat(manifest.c_str(), &status) != 0) throw std::runtime_error(who + "no Manifest in " + module.dir);
    std::string named;
    try {
        IniParser parser(manifest, 0);
        auto const it = parser.values().find("name");
        if (it != parser.values().end()) named = it->second;
        if (parser.values().count("architecture") == 0)
            throw std::runtime_error(who + "the Manifest has no architecture");
    } catch (VLException const& e) {
        throw std::runtime_error(who + "the Manifest does not parse: " + e.what());
    } catch (std::ios_base::failure const&) {
        throw std::runtime_error(who + "cannot read " + manifest);
    }
    if (named != module.name) {
        throw std::runtime_error(who + "the Manifest names the module \"" + named +
                                 "\"; the module (folder or archive) must have that name");
    }
    std::string const program = module.dir + "/" + module.name;
    if (stat(program.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(who + "no program file " + module.name + " in " + module.dir);
    }
    if ((status.st_mode & S_IXUSR) == 0)
        return who + "the program is not executable; the host will make it so";
    return {};
}
