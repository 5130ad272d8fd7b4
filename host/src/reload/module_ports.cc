#include <netinet/in.h>
#include <nxahost/device.h>
#include <nxahost/module_ports.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace nxahost {
namespace {

// Binds a probe socket the way a module binds its own; 0 or an error number.
int probePort(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    int const err = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? 0 : errno;
    close(fd);
    return err;
}

}  // namespace

std::vector<ModulePort> runningModulePorts(std::vector<std::string> const& configured,
                                           unsigned long maxModules, unsigned short firstPort,
                                           std::vector<std::string> const& installed) {
    std::vector<ModulePort> running;
    std::size_t next = 0;
    for (std::size_t k = 0; k < configured.size() && k < maxModules && next < installed.size(); ++k) {
        if (configured[k] != installed[next]) continue;
        running.push_back({installed[next], modulePort(firstPort, k)});
        ++next;
    }
    return running;
}

void requireFreePorts(std::vector<std::string> const& configured, unsigned long maxModules,
                      unsigned short firstPort) {
    for (std::size_t k = 0; k < configured.size() && k < maxModules; ++k) {
        unsigned short const port = modulePort(firstPort, k);
        if (port == 0) continue;
        if (int const err = probePort(port)) {
            throw std::runtime_error("port " + std::to_string(port) + " for module " + configured[k] +
                                     " is in use: " + std::strerror(err));
        }
    }
}

}  // namespace nxahost
