#include "options.h"

#include <getopt.h>
#include <nxahost/device.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>

namespace {

constexpr char kUsage[] =
    "usage: nxactl [OPTION]... COMMAND [ARGUMENT]...\n"
    "Asks a running nxahost over the bus and prints its answer.\n"
    "\n"
    "Commands:\n"
    "  status             one row per module: port, state, program, clients, output\n"
    "  clients MODULE     one row per consumer of MODULE's output (TCP clients, bus\n"
    "                     subscribers, the run log)\n"
    "  kick MODULE ID     detach the client ID (as `clients` lists it) from MODULE\n"
    "  restart MODULE     start MODULE's program again; its clients stay attached\n"
    "  follow MODULE      print MODULE's output as a bus subscriber until INT or TERM\n"
    "  reload             check the delivered package and, when it passes, install it (as\n"
    "                     SIGHUP does); --allow-downgrade lets a module's version go back\n"
    "  package            the installed package: version, hash, signer, probation, the last\n"
    "                     good package and the latest installs and rollbacks\n"
    "\n"
    "Options:\n"
    "  --json             status, clients and package: print the host's JSON (the \"modules\" or\n"
    "                     \"clients\" list, the \"package\" object) instead of a table\n"
    "  --allow-downgrade  reload: install a package whose module versions go back, this once\n"
    "  --bus-name NAME    the host's bus name (default @HOST@)\n"
    "  --timeout SECONDS  how long to wait for the broker and for the host's answer\n"
    "                     (default 3)\n"
    "  --help             show this text and exit\n"
    "\n"
    "Exit status: 0 done; 1 the broker or the host did not answer in time, or the host\n"
    "refused the request; 2 bad usage.\n";

// The help text: kUsage with the default host name, and where the broker is expected.
std::string usage() {
    std::string text = kUsage;
    text.replace(text.find("@HOST@"), 6, nxahost::control::kDefaultHostName);
    return text + "The bus broker is expected on 127.0.0.1:" + std::to_string(nxahost::kBusPort) + ".\n";
}

constexpr char kUsageHint[] =
    "usage: nxactl [--json] [--bus-name NAME] [--timeout SECONDS] status | clients MODULE |\n"
    "       kick MODULE ID | restart MODULE | follow MODULE | reload [--allow-downgrade] |\n"
    "       package   (nxactl --help for more)\n";

enum Option { kJson = 1, kBusName, kTimeout, kAllowDowngrade, kHelp };

option const kOptions[] = {
    {"json", no_argument, nullptr, kJson},
    {"bus-name", required_argument, nullptr, kBusName},
    {"timeout", required_argument, nullptr, kTimeout},
    {"allow-downgrade", no_argument, nullptr, kAllowDowngrade},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

// How many arguments each command takes.
std::map<std::string, std::size_t> const kArity = {
    {"status", 0}, {"clients", 1}, {"kick", 2}, {"restart", 1}, {"follow", 1}, {"reload", 0}, {"package", 0},
};

// The longest time-out accepted, one day.
constexpr double kLongestTimeout = 86400;

CtlCommandLine usageError(std::string const& what) {
    CtlCommandLine result;
    result.exitStatus = 2;
    result.message = "nxactl: " + what + "\n" + kUsageHint;
    return result;
}

// A positive number of seconds (decimals allowed) up to a day, or false.
bool parseTimeout(char const* text, CtlOptions& options) {
    char* end = nullptr;
    double const seconds = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > kLongestTimeout) {
        return false;
    }
    options.timeout = std::chrono::milliseconds(static_cast<long long>(std::ceil(seconds * 1000)));
    std::ostringstream shown;
    shown << seconds;
    options.timeoutText = shown.str();
    return true;
}

// The option getopt refused: "--name" as typed (without a value), or "-x".
std::string refusedOption(char* const argv[]) {
    std::string const typed = argv[optind - 1];
    if (typed.rfind("--", 0) == 0) return typed.substr(0, typed.find('='));
    return std::string("-") + static_cast<char>(optopt);
}

// Reads the options; false (with `result` set) when the command line ends here.
bool readOptions(int argc, char* const argv[], CtlCommandLine& result) {
    opterr = 0;
    optind = 1;
    int opt;
    while ((opt = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1) {
        switch (opt) {
            case kJson:
                result.options.json = true;
                break;
            case kAllowDowngrade:
                result.options.allowDowngrade = true;
                break;
            case kBusName:
                result.options.busName = optarg;
                break;
            case kTimeout:
                if (!parseTimeout(optarg, result.options)) {
                    result = usageError(std::string("--timeout wants a positive number of seconds, not ") +
                                        optarg);
                    return false;
                }
                break;
            case kHelp:
            case 'h':
                result.message = usage();
                return false;
            case ':':
                result = usageError("option " + refusedOption(argv) + " wants a value");
                return false;
            default:
                result = usageError("unknown option " + refusedOption(argv));
                return false;
        }
    }
    return true;
}

// Checks the command and its arguments; false (with `result` set) when wrong.
bool readCommand(std::vector<std::string> const& words, CtlCommandLine& result) {
    if (words.empty()) {
        result = usageError("no command given");
        return false;
    }
    auto const arity = kArity.find(words[0]);
    if (arity == kArity.end()) {
        result = usageError("unknown command " + words[0]);
        return false;
    }
    if (words.size() - 1 != arity->second) {
        result = usageError(words[0] + (words.size() - 1 < arity->second ? ": missing " : ": too many ") +
                            "arguments");
        return false;
    }
    bool const lists = words[0] == "status" || words[0] == "clients" || words[0] == "package";
    if (result.options.json && !lists) {
        result = usageError("--json goes with status, clients and package only");
        return false;
    }
    if (result.options.allowDowngrade && words[0] != "reload") {
        result = usageError("--allow-downgrade goes with reload only");
        return false;
    }
    result.options.command = words[0];
    result.options.args.assign(words.begin() + 1, words.end());
    return true;
}

}  // namespace

nxahost::ControlClient::Setup controlSetup(CtlOptions const& options) {
    nxahost::ControlClient::Setup setup;
    setup.host = options.busName;
    setup.ownName = "nxactl-" + std::to_string(getpid());
    setup.timeout = options.timeout;
    setup.timeoutText = options.timeoutText;
    return setup;
}

CtlCommandLine parseCtlCommandLine(int argc, char* const argv[]) {
    CtlCommandLine result;
    if (!readOptions(argc, argv, result)) return result;
    if (!readCommand(std::vector<std::string>(argv + optind, argv + argc), result)) return result;
    result.run = true;
    return result;
}
