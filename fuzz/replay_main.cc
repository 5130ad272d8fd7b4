// Replays saved fuzzer inputs without libFuzzer: every file named on the
// command line, and every file in every directory named there, is handed to
// LLVMFuzzerTestOneInput in turn. A finding aborts the process, so the replay
// fails exactly where the fuzzer would.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

// The regular files to replay for `path`: itself, or its directory's files, sorted.
std::vector<std::string> inputsOf(std::string const& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return {};
    if (!S_ISDIR(st.st_mode)) return {path};
    std::vector<std::string> files;
    if (DIR* dir = opendir(path.c_str())) {
        while (dirent* e = readdir(dir)) {
            std::string const file = path + "/" + e->d_name;
            if (e->d_name[0] != '.' && stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode))
                files.push_back(file);
        }
        closedir(dir);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::string> const inputs = inputsOf(argv[i]);
        if (inputs.empty()) {
            std::fprintf(stderr, "replay: nothing to replay in %s\n", argv[i]);
            return 2;
        }
        for (std::string const& input : inputs) {
            std::ifstream in(input, std::ios::binary);
            std::string const data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::printf("replay: %s (%zu bytes)\n", input.c_str(), data.size());
            std::fflush(stdout);
            LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(data.data()), data.size());
            ++replayed;
        }
    }
    std::printf("replay: %lu inputs, no finding\n", replayed);
    return 0;
}
