// main of a target where there is no libFuzzer: feeds it every file named, and every file of every folder named.
#include "tests/fuzz/target.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> files_of(const std::vector<std::string> &names) {
    std::vector<fs::path> files;
    for (const std::string &name : names) {
        if (!fs::is_directory(name)) {
            files.emplace_back(name);
            continue;
        }
        for (const auto &entry : fs::directory_iterator(name))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// In memory of its very size, so that a read beyond it is seen.
bool feed(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> read{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file)
        return false;
    const std::vector<uint8_t> bytes(read.begin(), read.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    const auto files = files_of({argv + 1, argv + argc});
    for (const fs::path &file : files) {
        std::printf("%s\n", file.c_str());
        std::fflush(stdout);
        if (!feed(file)) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
