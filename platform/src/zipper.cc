#include <vlplatform/log_util.h>
#include <vlplatform/zipper.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <new>
#include <system_error>

#include "zip_support.h"

namespace zipper {
namespace {

std::atomic<unsigned> debugLevel{0};

// The one trace line of a call: a success at level 1 and above, a failure
// always, as a WARNING naming the reason (a bomb, a full disk and a damaged
// file each say so), beside whatever its caller writes.
void trace(char const* function, std::string const& text, bool failed) {
    if (!failed && debugLevel.load() == 0) return;
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout << (failed ? "[WARNING] zipper::" : "[DEBUG] zipper::") << function << "() " << text
              << std::endl;
}

// Runs `body`, turning every way it can fail into a Failure.
detail::Failure attempt(std::function<unsigned long()> const& body, unsigned long& count) {
    try {
        count = body();
        return {0, {}};
    } catch (detail::Failure const& failure) {
        return failure;
    } catch (std::bad_alloc const&) {
        return {ENOMEM, "out of memory"};
    } catch (std::exception const& e) {
        return {EIO, e.what()};
    }
}

}  // namespace

void setDebug(unsigned level) {
    debugLevel.store(level);
}

namespace detail {

Failure systemFailure(std::string const& what) {
    int const err = errno;
    return {err, what + ": " + std::generic_category().message(err)};
}

Failure zipFailure(std::string const& what, zip_error_t* error) {
    std::string const reason = what + ": " + zip_error_strerror(error);
    if (zip_error_system_type(error) == ZIP_ET_SYS && zip_error_code_system(error) != 0) {
        return {zip_error_code_system(error), reason};
    }
    int const code = zip_error_code_zip(error);
    if (code == ZIP_ER_CRC || code == ZIP_ER_ZLIB || code == ZIP_ER_COMPRESSED_DATA) return {EIO, reason};
    if (code == ZIP_ER_MEMORY) return {ENOMEM, reason};
    if (code == ZIP_ER_NOENT) return {ENOENT, reason};
    return {EINVAL, reason};
}

Failure openFailure(std::string const& what, int zipError, int savedErrno) {
    zip_error_t error;
    zip_error_init_with_code(&error, zipError);
    Failure failure = zipFailure(what, &error);
    if (zip_error_system_type(&error) == ZIP_ET_SYS && savedErrno != 0) failure.err = savedErrno;
    zip_error_fini(&error);
    return failure;
}

std::string quoted(std::string const& name) {
    std::string text = "\"";
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            text += hex;
        } else {
            text += static_cast<char>(c);
        }
    }
    return text + "\"";
}

std::vector<std::string> listDirectory(std::string const& path) {
    Directory dir(opendir(path.c_str()));
    if (!dir) throw systemFailure("cannot open directory " + path);
    std::vector<std::string> names;
    errno = 0;
    while (dirent* entry = readdir(dir.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
        errno = 0;
    }
    if (errno != 0) throw systemFailure("cannot read directory " + path);
    std::sort(names.begin(), names.end());
    return names;
}

int runTraced(char const* function, std::string const& subject, std::function<unsigned long()> const& body) {
    unsigned long count = 0;
    Failure const failure = attempt(body, count);
    try {
        if (failure.err == 0) {
            trace(function, subject + ": " + std::to_string(count) + " entries", false);
        } else {
            trace(function, subject + ": failed: " + failure.reason, true);
        }
    } catch (...) {
        // A trace line that cannot be written must not turn into a different result.
    }
    if (failure.err == 0) return 0;
    errno = failure.err;
    return -1;
}

}  // namespace detail
}  // namespace zipper
