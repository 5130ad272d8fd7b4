// Module packages made the way a user makes them, with the real `zip`.
#pragma once

#include <string>
#include <vector>

namespace nxaclienttest {

// A private folder under /tmp for one test, removed by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;
    std::string const& path() const { return path_; }

private:
    std::string path_;
};

// The manifest text of a module, as the build writes it.
std::string manifestText(std::string const& name, std::string const& arch);

// Writes <staging>/<name>/Manifest (for `arch`, unless arch is empty: then no
// manifest) and a /bin/sh program <staging>/<name>/<name> printing `greeting`,
// then zips the folder's contents (top level: Manifest and program) into
// <staging>/<name>.zip. Returns the archive's path.
std::string makeModuleZip(std::string const& staging, std::string const& name, std::string const& arch,
                          std::string const& greeting = "");

// The same with a program made of the /bin/sh script `body`.
std::string makeModuleZipRunning(std::string const& staging, std::string const& name, std::string const& arch,
                                 std::string const& body);

// Zips the given files of `staging` (names relative to it) into `package`,
// replacing it. Fails the test when zip fails.
void makePackage(std::string const& staging, std::string const& package,
                 std::vector<std::string> const& files);

// The names in `dir` (without "." and ".."), sorted; empty when it cannot be read.
std::vector<std::string> listDir(std::string const& dir);

}  // namespace nxaclienttest
