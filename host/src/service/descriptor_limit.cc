#include <nxahost/descriptor_limit.h>
#include <sys/resource.h>

#include <stdexcept>
#include <string>

namespace nxahost {

unsigned long raiseDescriptorLimit(std::size_t modules) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    std::size_t const need = kHostDescriptors + kDescriptorsPerModule * modules;
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < need) {
        throw std::runtime_error(std::to_string(modules) + " modules need about " + std::to_string(need) +
                                 " descriptors; the limit is " + std::to_string(limit.rlim_cur));
    }
    return static_cast<unsigned long>(limit.rlim_cur);
}

}  // namespace nxahost
