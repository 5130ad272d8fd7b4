// Checking the destination of zipper::unZipWithDirs before anything else: it
// must name a folder of its own, never the folder its path already names nor
// that folder's parent.
#include <cerrno>

#include "zip_support.h"
#include "zip_unpack.h"

namespace zipper {
namespace detail {

void checkDestination(std::string const& dest) {
    // With no '/' at all, rfind gives npos and npos + 1 is 0: the whole path.
    std::string const last = dest.substr(dest.rfind('/') + 1);
    if (last.empty()) throw Failure{EINVAL, "refused destination: last component is empty"};
    if (last == "." || last == "..") {
        throw Failure{EINVAL, "refused destination: last component is " + quoted(last)};
    }
}

}  // namespace detail
}  // namespace zipper
