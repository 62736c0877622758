// Runs a target over files and folders of inputs without a fuzzer: its corpus as a regression test.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "input.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path &path) {
    std::vector<fs::path> files;
    if (!fs::is_directory(path)) return {path};
    for (const fs::directory_entry &entry : fs::directory_iterator(path))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const fs::path &file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        std::fprintf(stderr, "%s: cannot be read\n", file.c_str());
        return false;
    }
    const std::vector<char> content((std::istreambuf_iterator<char>(stream)),
                                    std::istreambuf_iterator<char>());
    std::printf("%s\n", file.c_str());
    std::fflush(stdout); // the last name shown is that of a failing input
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(content.data()), content.size());
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::size_t replayed = 0;
    for (int i = 1; i < argc; i++)
        for (const fs::path &file : files_of(argv[i])) {
            if (!replay(file)) return 1;
            replayed++;
        }
    std::printf("%zu inputs\n", replayed);
    return replayed == 0 ? 1 : 0; // an empty corpus tests nothing
}
