#include "commands.h"

#include <iostream>

#include "control_session.h"
#include "follow.h"
#include "views.h"

namespace {

using json = nlohmann::json;

// Asks the host once; the answer when it says "ok", else throws its error.
json askHost(CtlOptions const& options, json const& request) {
    ControlSession session(options);
    session.connect();
    return requireOk(session.ask(request));
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
    json const modules = listOf(askHost(options, {{"command", "status"}}), "modules");
    printList(options, modules, statusTable(modules));
    return 0;
}

int clients(CtlOptions const& options) {
    json const clients =
        listOf(askHost(options, {{"command", "clients"}, {"module", options.args[0]}}), "clients");
    printList(options, clients, clientsTable(clients));
    return 0;
}

int kick(CtlOptions const& options) {
    std::string const& module = options.args[0];
    std::string const& client = options.args[1];
    askHost(options, {{"command", "kick"}, {"module", module}, {"client", client}});
    std::cout << "detached client " << client << " from module " << module << "\n";
    return 0;
}

int restart(CtlOptions const& options) {
    std::string const& module = options.args[0];
    askHost(options, {{"command", "restart"}, {"module", module}});
    std::cout << "restarted module " << module << "\n";
    return 0;
}

}  // namespace

int runCommand(CtlOptions const& options) {
    if (options.command == "status") return status(options);
    if (options.command == "clients") return clients(options);
    if (options.command == "kick") return kick(options);
    if (options.command == "restart") return restart(options);
    return follow(options);
}
