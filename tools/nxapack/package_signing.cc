#include "package_signing.h"

#include <fcntl.h>
#include <nxahost/minisign.h>
#include <nxahost/versions.h>
#include <termios.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/ini_parser.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace {

std::string readText(std::string const& path, char const* what) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error(std::string("cannot read ") + what + " " + path + ": " +
                                 std::strerror(errno));
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

// The password on the terminal, not echoed.
std::string askPassword() {
    int const tty = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (tty < 0)
        throw std::runtime_error(
            "the secret key needs a password and there is no terminal to ask for it on "
            "(--sign-password-file gives it)");
    termios saved{};
    bool const quiet = tcgetattr(tty, &saved) == 0;
    if (quiet) {
        termios silent = saved;
        silent.c_lflag &= static_cast<tcflag_t>(~ECHO);
        tcsetattr(tty, TCSANOW, &silent);
    }
    static char const prompt[] = "Password of the secret key: ";
    (void)!write(tty, prompt, sizeof prompt - 1);
    std::string password;
    char c;
    while (read(tty, &c, 1) == 1 && c != '\n') password += c;
    if (quiet) tcsetattr(tty, TCSANOW, &saved);
    (void)!write(tty, "\n", 1);
    close(tty);
    return password;
}

// The first line of the password file, without its line end.
std::string passwordFrom(std::string const& file) {
    std::string text = readText(file, "the password file");
    std::size_t const end = text.find_first_of("\r\n");
    if (end != std::string::npos) text.resize(end);
    return text;
}

std::string fileName(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void writeWhole(std::string const& path, std::string const& text) {
    std::string const part = path + ".part";
    {
        std::ofstream out(part, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out.flush()) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    }
    if (std::rename(part.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace

std::string moduleVersion(ModuleSource const& module) {
    try {
        IniParser manifest(module.dir + "/Manifest", 0);
        auto const found = manifest.values().find("version");
        return found == manifest.values().end() ? std::string() : found->second;
    } catch (std::exception const&) {
        return {};
    }
}

void signPackage(std::string const& package, std::vector<std::string> const& moduleVersions,
                 Signing const& signing) {
    std::string const version =
        signing.versionTag.empty() ? nxahost::newestVersion(moduleVersions) : signing.versionTag;
    if (version.empty())
        throw std::runtime_error(
            "no module names a version (dotted numbers): give the package's with --version-tag");
    if (version.find_first_of(" \t\r\n") != std::string::npos)
        throw std::runtime_error("--version-tag must be one word, not '" + version + "'");
    nxahost::minisign::SecretKey const key = nxahost::minisign::parseSecretKey(
        readText(signing.secretKeyFile, "the secret key"),
        [&] { return signing.passwordFile.empty() ? askPassword() : passwordFrom(signing.passwordFile); });
    std::string const comment = "timestamp:" + std::to_string(std::time(nullptr)) +
                                "\tfile:" + fileName(package) + "\tversion:" + version;
    std::string const signature = package + ".minisig";
    writeWhole(signature, nxahost::minisign::sign(key, nxahost::minisign::hashFile(package), comment));
    std::cout << "nxapack: signed " << package << " as version " << version << " with key "
              << nxahost::minisign::keyIdText(key.id) << " (" << signature << ")\n";
}
