#include "accepted_connections.h"

#include <mutex>
#include <unordered_map>
#include <vector>

namespace vlp {
namespace accepted {

namespace {

std::mutex lock;
std::vector<int> originOf;  // by connection: its listener + 1, 0 when none
std::unordered_map<int, unsigned> counts;

}  // namespace

void noteAccepted(int connection, int listener) {
    if (connection < 0 || listener < 0) return;
    std::lock_guard<std::mutex> guard(lock);
    if (static_cast<std::size_t>(connection) >= originOf.size()) originOf.resize(connection + 1, 0);
    originOf[connection] = listener + 1;
    ++counts[listener];
}

void noteClosed(int fd) {
    std::lock_guard<std::mutex> guard(lock);
    if (fd < 0 || static_cast<std::size_t>(fd) >= originOf.size() || originOf[fd] == 0) return;
    auto it = counts.find(originOf[fd] - 1);
    if (it != counts.end() && it->second > 0 && --it->second == 0) counts.erase(it);
    originOf[fd] = 0;
}

unsigned countFor(int listener) {
    std::lock_guard<std::mutex> guard(lock);
    auto it = counts.find(listener);
    return it == counts.end() ? 0 : it->second;
}

}  // namespace accepted
}  // namespace vlp
