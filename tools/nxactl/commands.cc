#include "commands.h"

#include <nxahost/control_client.h>
#include <nxahost/control_protocol.h>

#include <iostream>

#include "follow.h"
#include "views.h"

namespace {

using json = nlohmann::json;
namespace control = nxahost::control;
namespace key = control::key;

// Asks the host once; the answer when it says "ok", else throws its error.
json askHost(CtlOptions const& options, json const& request) {
    nxahost::ControlClient client(controlSetup(options));
    client.connect();
    return nxahost::requireOk(client.ask(request));
}

// The list `key` of an answer; an empty one when the host sent none.
json listOf(json const& answer, char const* key) {
    auto it = answer.find(key);
    return it != answer.end() && it->is_array() ? *it : json::array();
}

void printList(CtlOptions const& options, json const& list, Table const& table) {
    if (options.json) {
        std::cout << list.dump(2) << "\n";
    } else {
        table.print(std::cout);
    }
}

int status(CtlOptions const& options) {
    json const answer = askHost(options, {{key::kCommand, control::kStatus}});
    json const modules = listOf(answer, key::kModules);
    printList(options, modules, statusTable(modules));
    auto const package = answer.find(key::kPackage);
    if (!options.json && package != answer.end() && package->is_object())
        std::cout << "\n" << packageLines(*package);
    return 0;
}

int clients(CtlOptions const& options) {
    json const clients =
        listOf(askHost(options, {{key::kCommand, control::kClients}, {key::kModule, options.args[0]}}),
               key::kConsumers);
    printList(options, clients, clientsTable(clients));
    return 0;
}

int kick(CtlOptions const& options) {
    std::string const& module = options.args[0];
    std::string const& client = options.args[1];
    askHost(options, {{key::kCommand, control::kKick}, {key::kModule, module}, {key::kClient, client}});
    std::cout << "detached client " << client << " from module " << module << "\n";
    return 0;
}

int restart(CtlOptions const& options) {
    std::string const& module = options.args[0];
    askHost(options, {{key::kCommand, control::kRestart}, {key::kModule, module}});
    std::cout << "restarted module " << module << "\n";
    return 0;
}

int reload(CtlOptions const& options) {
    askHost(options, {{key::kCommand, control::kReload}, {key::kAllowDowngrade, options.allowDowngrade}});
    std::cout << "reloaded the package\n";
    return 0;
}

int package(CtlOptions const& options) {
    json const answer = askHost(options, {{key::kCommand, control::kPackage}});
    json const described = answer.value(key::kPackage, json::object());
    if (options.json) {
        std::cout << described.dump(2) << "\n";
    } else {
        std::cout << packageView(described);
    }
    return 0;
}

}  // namespace

int runCommand(CtlOptions const& options) {
    if (options.command == control::kStatus) return status(options);
    if (options.command == control::kClients) return clients(options);
    if (options.command == control::kKick) return kick(options);
    if (options.command == control::kRestart) return restart(options);
    if (options.command == control::kReload) return reload(options);
    if (options.command == control::kPackage) return package(options);
    return follow(options);
}
