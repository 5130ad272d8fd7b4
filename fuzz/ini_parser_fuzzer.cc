// IniParser on arbitrary file content: it may accept the file or throw
// VLException, nothing else, and what it accepts is trimmed as promised.
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/ini_parser.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_input.h"

namespace {

// The file that holds the current input, in a private directory removed at exit.
std::string const& inputPath() {
    static std::string const path = [] {
        static char dir[] = "/tmp/nxa-ini-fuzz.XXXXXX";
        if (!mkdtemp(dir)) std::abort();
        std::atexit([] {
            unlink((std::string(dir) + "/Manifest").c_str());
            rmdir(dir);
        });
        return std::string(dir) + "/Manifest";
    }();
    return path;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool trimmed(std::string const& text) {
    return text.empty() || (!isBlank(text.front()) && !isBlank(text.back()));
}

// What every accepted entry must look like.
void checkEntry(std::string const& key, std::string const& value) {
    bool const ok = !key.empty() && key.front() != '#' && trimmed(key) && trimmed(value) &&
                    key.find_first_of("=\n") == std::string::npos && value.find('\n') == std::string::npos;
    if (!ok) {
        std::fprintf(stderr, "bad entry: key of %zu bytes, value of %zu bytes\n", key.size(), value.size());
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzzinput::writeInput(inputPath(), data, size);
    try {
        IniParser parser(inputPath(), 0);
        for (auto const& entry : parser.values()) checkEntry(entry.first, entry.second);
    } catch (VLException const&) {
        // an unparsable line: an expected outcome
    }
    return 0;
}
