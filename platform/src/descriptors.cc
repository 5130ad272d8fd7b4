// Openings and closings announced by the loop's own code (and by the
// platform's functions that create descriptors).
#include "vlplatform/descriptors.h"

#include <unistd.h>

#include "accepted_connections.h"
#include "descriptor_registry.h"
#include "interest_set.h"

void noteDescriptorOpened(int fd) {
    vlp::descriptors::record(fd, true);
}

void forgetDescriptor(int fd) {
    if (fd < 0) return;
    // Out of the interest set while the number still means the old file.
    vlp::InterestSet::ofThisThread().drop(fd);
    vlp::descriptors::record(fd, false);
    vlp::accepted::noteClosed(fd);
}

int closeDescriptor(int fd) {
    forgetDescriptor(fd);
    return ::close(fd);
}
