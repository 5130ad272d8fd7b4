// Reading nxabuild's command line.
#include "options.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Characters that the shell takes literally in an unquoted word.
bool isPlainChar(char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return std::string("._-/+,:@%").find(c) != std::string::npos;
}

ParsedBuildCommand usageError(std::string const& why) {
    ParsedBuildCommand parsed;
    parsed.exitStatus = 2;
    parsed.message = "nxabuild: " + why + "\n" + buildUsage();
    return parsed;
}

// `path` made absolute against the current directory.
std::string absolute(std::string const& path) {
    if (!path.empty() && path[0] == '/') return path;
    std::vector<char> buf(PATH_MAX);
    if (!getcwd(buf.data(), buf.size())) return path;
    return std::string(buf.data()) + "/" + path;
}

bool parseLevel(std::string const& text, unsigned& level) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    if (errno != 0 || value > UINT_MAX) return false;
    level = static_cast<unsigned>(value);
    return true;
}

bool commandFromWord(std::string const& word, BuildOptions::Command& command) {
    if (word == "build")
        command = BuildOptions::Command::Build;
    else if (word == "sources")
        command = BuildOptions::Command::Sources;
    else if (word == "link")
        command = BuildOptions::Command::Link;
    else
        return false;
    return true;
}

// Empty when `name` is a plain file name for the source directory.
std::string checkFileName(std::string const& name) {
    std::string why = checkShellWord("NAME", name);
    if (!why.empty()) return why;
    if (name.find('/') != std::string::npos || name == "." || name == "..")
        return "NAME \"" + name + "\" must be a plain file name of the shared data directory";
    return "";
}

// Checks the values and makes the paths absolute; empty when all is well.
std::string finish(BuildOptions& o) {
    o.workDir = absolute(o.workDir);
    std::string why = checkShellWord("work directory", o.workDir);
    if (!why.empty()) return why;
    switch (o.command) {
        case BuildOptions::Command::Build:
            o.argument = absolute(o.argument);
            return checkShellWord("SRC", o.argument);
        case BuildOptions::Command::Sources:
            o.argument = absolute(o.argument);
            return checkShellWord("DEST", o.argument);
        case BuildOptions::Command::Link:
            return checkFileName(o.argument);
        case BuildOptions::Command::Help:
            break;
    }
    return "";
}

}  // namespace

std::string buildUsage() {
    std::string const dataDir = nxahost::kDataDir;
    return "usage: nxabuild [--work-dir DIR] [--debug N] build SRC.zip [--force]\n"
           "       nxabuild [--work-dir DIR] [--debug N] sources DEST.zip\n"
           "       nxabuild [--work-dir DIR] [--debug N] link NAME\n"
           "       nxabuild --help\n"
           "\n"
           "  build    unpack the module sources SRC.zip into DIR/src, build them with\n"
           "           " +
           dataDir +
           "/Makefile and write the development package\n"
           "           /tmp/nxadevel.zip (--force: say that the build was forced; every\n"
           "           build starts from scratch anyway)\n"
           "  sources  zip the *.h *.hh *.c *.cc files of DIR/src into DEST.zip\n"
           "  link     make DIR/src/NAME a link to " +
           dataDir +
           "/NAME\n"
           "\n"
           "  --work-dir DIR  the build workspace (default " +
           nxahost::kWorkDir +
           ")\n"
           "  --debug N       trace level (0: INFO lines only; 1 and 2: more)\n"
           "\n"
           "SRC, DEST and DIR are passed to the shell unquoted, so they must be plain\n"
           "words: letters, digits and . _ - / + , : @ %, not starting with -.\n"
           "Relative paths are taken from the current directory.\n"
           "Exit status: 0 done, 1 failed (the reason on standard error), 2 bad usage.\n";
}

std::string checkShellWord(std::string const& what, std::string const& value) {
    if (value.empty()) return what + " is empty";
    if (value[0] == '-') return what + " \"" + value + "\" starts with \"-\" and would be read as an option";
    for (char c : value) {
        if (!isPlainChar(c))
            return what + " \"" + value +
                   "\" contains a blank or a character the shell would interpret; only letters, "
                   "digits and . _ - / + , : @ % are accepted";
    }
    return "";
}

ParsedBuildCommand parseBuildCommand(int argc, char* const argv[]) {
    BuildOptions o;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            ParsedBuildCommand parsed;
            parsed.message = buildUsage();
            return parsed;
        }
        if (arg == "--force") {
            o.force = true;
        } else if (arg == "--work-dir" || arg == "--debug") {
            if (i + 1 >= argc) return usageError(arg + " needs a value");
            std::string value = argv[++i];
            if (arg == "--work-dir")
                o.workDir = value;
            else if (!parseLevel(value, o.debug))
                return usageError("--debug needs a number, not \"" + value + "\"");
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usageError("unknown option " + arg);
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty()) return usageError("no command given");
    if (!commandFromWord(words[0], o.command)) return usageError("unknown command \"" + words[0] + "\"");
    if (words.size() != 2) return usageError(words[0] + " takes exactly one argument");
    if (o.force && o.command != BuildOptions::Command::Build)
        return usageError("--force goes only with build");
    o.argument = words[1];
    std::string why = finish(o);
    if (!why.empty()) return usageError(why);
    ParsedBuildCommand parsed;
    parsed.run = true;
    parsed.options = o;
    return parsed;
}
