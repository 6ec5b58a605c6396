// Runs a fuzz target on given inputs, without a fuzzer: the corpus as tests of any build.
//
// usage: replay_TARGET FILE_OR_FOLDER...
#include "fuzz.hpp"
#include "temp_dir.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;

static std::vector<std::string> find_files(const std::string &path)
{
    std::vector<std::string> found;
    if (!fs::is_directory(path))
        return {path};
    for (const auto &entry : fs::directory_iterator(path))
        found.push_back(entry.path().string());
    std::sort(found.begin(), found.end());
    return found;
}

int main(int argc, char **argv)
{
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::string &file : find_files(argv[i])) {
            if (!fs::is_regular_file(file)) {
                fprintf(stderr, "%s: no file\n", file.c_str());
                return 1;
            }
            // The last name that is printed is that of the input that fails.
            fprintf(stderr, "%s\n", file.c_str());
            const std::string content = read_file(file);
            const std::vector<uint8_t> input(content.begin(), content.end()); // of just this size
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++runs;
        }
    }
    if (runs == 0) {
        fprintf(stderr, "no input\n");
        return 1;
    }
    return 0;
}
