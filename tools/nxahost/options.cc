#include "options.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <nxahost/web_console.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// The help text; the defaults it names are the tools' constants.
std::string usage() {
    namespace c = nxahost;
    std::string text =
        "usage: nxahost [OPTION]... MODULE...\n"
        "Installs the module package, runs each named module's program on a pseudo-terminal and\n"
        "serves its output to TCP clients, bus subscribers and the run log until stopped.\n"
        "\n";
    text += std::string("  --package-dir DIR   directory holding the package ") + c::kPackageFile +
            " (default " + c::kPackageDir + ")\n";
    text += "  --modules-dir DIR   directory the modules are installed into and checked in\n";
    text += std::string("                      (default ") + c::kModulesDir +
            "; programs always start from there)\n";
    text += std::string("  --work-dir DIR      build workspace (default ") + c::kWorkDir + ")\n";
    text += "  --port N            TCP port of the first module; module k listens on N+k (default " +
            std::to_string(c::kFirstModulePort) + ")\n";
    text +=
        "  --max-modules N     most modules to run; further names are skipped (default 16)\n"
        "  --debug N           trace level: 0 normal, 1 debug lines, 2 per-chunk detail (default 0)\n"
        "  --bus-name NAME     the host's own bus name; kind-34 text sent to it goes to every module\n"
        "                      (default @HOST@)\n"
        "  --restart WHEN      start a module program that ended again: on-failure (a non-zero exit\n"
        "                      status or a signal), always or never (default on-failure); the delay\n"
        "                      starts at 1 s and doubles up to 60 s\n"
        "  --client-timeout S  drop a TCP client whose machine or network vanished after about S\n"
        "                      seconds (default 60)\n"
        "  --unpack-budget MIB most a module archive may unpack to; more is refused (default 256,\n"
        "                      and never more than half the free space of the disk)\n"
        "  --trusted-keys DIR  install only packages signed by a minisign key of DIR (every *.pub in\n"
        "                      it); without a key there, packages are not checked (default\n"
        "                      /etc/nxahost/trusted-keys.d)\n"
        "  --probation S       a new package's programs must not fail --probation-failures times\n"
        "                      within S seconds, or the last good package comes back (default 60)\n"
        "  --probation-failures N\n"
        "                      failures of one module's program that roll a new package back\n"
        "                      (default 3)\n"
        "  --fleet             follow the package the fleet's centre wants for this device: the\n"
        "                      desired package arrives on the local broker through the fleet\n"
        "                      bridge, is downloaded, checked and installed; each step is reported\n"
        "  --ca-file FILE      trust only FILE's certificates for the fleet's downloads (default: the\n"
        "                      system's store)\n"
        "  --web ADDRESS:PORT  serve the browser console on this IPv4 address and port, or\n"
        "                      off (default 127.0.0.1:20080); it has no authentication\n"
        "  --web-root DIR      the browser console's pages and scripts (default share/nxa/web\n"
        "                      of the installation, /usr/share/nxa/web for /usr/bin/nxahost)\n"
        "  --help              show this text and exit\n"
        "\n"
        "Signals: INT and TERM stop the modules and exit 0; USR1 prints the run log; HUP checks the\n"
        "package and the broker and, when both are fine, stops, reinstalls the package and starts\n"
        "the modules again.\n";
    text += "The bus broker is expected on 127.0.0.1:" + std::to_string(c::kBusPort) + ".\n";
    text.replace(text.find("@HOST@"), 6, c::control::kDefaultHostName);
    return text;
}

enum Option {
    kPackageDir = 1,
    kModulesDir,
    kWorkDir,
    kPort,
    kMaxModules,
    kDebug,
    kBusName,
    kRestart,
    kClientTimeout,
    kUnpackBudget,
    kWeb,
    kWebRoot,
    kTrustedKeys,
    kProbation,
    kProbationFailures,
    kFleet,
    kCaFile,
    kHelp
};

option const kOptions[] = {
    {"package-dir", required_argument, nullptr, kPackageDir},
    {"modules-dir", required_argument, nullptr, kModulesDir},
    {"work-dir", required_argument, nullptr, kWorkDir},
    {"port", required_argument, nullptr, kPort},
    {"max-modules", required_argument, nullptr, kMaxModules},
    {"debug", required_argument, nullptr, kDebug},
    {"bus-name", required_argument, nullptr, kBusName},
    {"restart", required_argument, nullptr, kRestart},
    {"client-timeout", required_argument, nullptr, kClientTimeout},
    {"unpack-budget", required_argument, nullptr, kUnpackBudget},
    {"web", required_argument, nullptr, kWeb},
    {"web-root", required_argument, nullptr, kWebRoot},
    {"trusted-keys", required_argument, nullptr, kTrustedKeys},
    {"probation", required_argument, nullptr, kProbation},
    {"probation-failures", required_argument, nullptr, kProbationFailures},
    {"fleet", no_argument, nullptr, kFleet},
    {"ca-file", required_argument, nullptr, kCaFile},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

// A whole decimal number in [low, high], or false.
bool parseNumber(char const* text, unsigned long low, unsigned long high, unsigned long& value) {
    if (text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long parsed = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) return false;
    value = static_cast<unsigned long>(parsed);
    return true;
}

using nxahost::RestartPolicy;

bool parseRestart(std::string const& text, RestartPolicy& policy) {
    if (text == "on-failure")
        policy = RestartPolicy::onFailure;
    else if (text == "always")
        policy = RestartPolicy::always;
    else if (text == "never")
        policy = RestartPolicy::never;
    else
        return false;
    return true;
}

// "off", or ADDRESS:PORT with a dotted IPv4 address and a port from 1 to 65535.
bool parseWeb(std::string const& text, HostOptions& options) {
    if (text == "off") {
        options.webAddress.clear();
        return true;
    }
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    std::string const address = text.substr(0, colon);
    in_addr parsed{};
    unsigned long port = 0;
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return false;
    if (!parseNumber(text.c_str() + colon + 1, 1, 65535, port)) return false;
    options.webAddress = address;
    options.webPort = static_cast<unsigned short>(port);
    return true;
}

// A module name is a folder below the modules directory: it must not be
// empty, "." or "..", nor hold a "/".
bool leavesTheModulesTree(std::string const& name) {
    return name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos;
}

ParsedCommandLine usageError(std::string const& problem) {
    ParsedCommandLine result;
    result.exitStatus = 2;
    result.message = "nxahost: " + problem + "\nTry 'nxahost --help' for more information.\n";
    return result;
}

// What was wrong with the option getopt_long refused. optopt tells: the value
// of a long option given a value it does not take, the letter of an unknown
// short option (argv[optind - 1] is then not always the word that held it, as
// in "-xy"), or 0 for an unknown long option, which argv[optind - 1] holds.
std::string unknownOption(char* const argv[]) {
    for (option const* o = kOptions; o->name; ++o) {
        if (o->val == optopt) return std::string("option '--") + o->name + "' takes no value";
    }
    if (optopt > 0) return std::string("unknown option '-") + static_cast<char>(optopt) + "'";
    return std::string("unknown option '") + argv[optind - 1] + "'";
}

// Applies one option to `options`; an empty result means it was fine.
std::string applyOption(int option, char const* value, HostOptions& options) {
    unsigned long number = 0;
    switch (option) {
        case kPackageDir:
            options.packageDir = value;
            break;
        case kModulesDir:
            options.modulesDir = value;
            break;
        case kWorkDir:
            options.workDir = value;
            break;
        case kBusName:
            options.busName = value;
            break;
        case kPort:
            if (!parseNumber(value, 1, 65535, number))
                return "--port needs a number from 1 to 65535, not '" + std::string(value) + "'";
            options.port = static_cast<unsigned short>(number);
            break;
        case kMaxModules:
            if (!parseNumber(value, 0, ULONG_MAX, number))
                return "--max-modules needs a whole number, not '" + std::string(value) + "'";
            options.maxModules = number;
            break;
        case kRestart:
            if (!parseRestart(value, options.restart))
                return "--restart needs on-failure, always or never, not '" + std::string(value) + "'";
            break;
        case kClientTimeout:
            if (!parseNumber(value, 1, 86400, number))
                return "--client-timeout needs a number of seconds from 1 to 86400, not '" +
                       std::string(value) + "'";
            options.clientTimeout = static_cast<unsigned>(number);
            break;
        case kUnpackBudget:
            if (!parseNumber(value, 1, 1024 * 1024, number))
                return "--unpack-budget needs a number of MiB from 1 to 1048576, not '" + std::string(value) +
                       "'";
            options.unpackBudgetMiB = number;
            break;
        case kWeb:
            if (!parseWeb(value, options))
                return "--web needs ADDRESS:PORT (an IPv4 address, a port from 1 to 65535) or off, not '" +
                       std::string(value) + "'";
            break;
        case kWebRoot:
            options.webRoot = value;
            break;
        case kTrustedKeys:
            options.trustedKeys = value;
            options.trustedKeysGiven = true;
            break;
        case kProbation:
            if (!parseNumber(value, 1, 86400, number))
                return "--probation needs a number of seconds from 1 to 86400, not '" + std::string(value) +
                       "'";
            options.probationSeconds = static_cast<unsigned>(number);
            break;
        case kProbationFailures:
            if (!parseNumber(value, 1, 1000, number))
                return "--probation-failures needs a number from 1 to 1000, not '" + std::string(value) + "'";
            options.probationFailures = static_cast<unsigned>(number);
            break;
        case kFleet:
            options.fleet = true;
            break;
        case kCaFile:
            options.caFile = value;
            break;
        case kDebug:
            if (!parseNumber(value, 0, UINT_MAX, number))
                return "--debug needs a whole number, not '" + std::string(value) + "'";
            options.debug = static_cast<unsigned>(number);
            break;
        default:
            return "unknown option";
    }
    return {};
}

}  // namespace

ParsedCommandLine parseCommandLine(int argc, char* const argv[]) {
    ParsedCommandLine result;
    opterr = 0;
    optind = 1;
    int option;
    while ((option = getopt_long(argc, argv, ":", kOptions, nullptr)) != -1) {
        if (option == kHelp) {
            result.message = usage();
            return result;
        }
        if (option == ':') return usageError(std::string("option '") + argv[optind - 1] + "' needs a value");
        if (option == '?') return usageError(unknownOption(argv));
        std::string problem = applyOption(option, optarg, result.options);
        if (!problem.empty()) return usageError(problem);
    }
    for (int i = optind; i < argc; ++i) {
        if (leavesTheModulesTree(argv[i]))
            return usageError(std::string("module name '") + argv[i] +
                              "' is empty, '.', '..' or holds a '/'");
        result.options.modules.emplace_back(argv[i]);
    }
    if (result.options.modules.empty()) return usageError("no module named");
    if (result.options.busName.empty()) return usageError("--bus-name must not be empty");
    HostOptions const& options = result.options;
    if (!options.caFile.empty() && !options.fleet) return usageError("--ca-file is for --fleet's downloads");
    if (!options.caFile.empty() && access(options.caFile.c_str(), R_OK) != 0)
        return usageError("--ca-file: cannot read " + options.caFile + ": " + std::strerror(errno));
    if (result.options.webRoot.empty()) result.options.webRoot = nxahost::installedWebRoot();
    result.run = true;
    return result;
}
