/// Runs kept inputs through a target, one after the other, without a fuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Ends.h"

namespace {

std::vector<std::filesystem::path> FilesIn(const char* directory) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Run(const std::filesystem::path& file) {
    std::fprintf(stderr, "%s\n", file.c_str());  // the last line of a run that fails tells which
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> input{std::istreambuf_iterator<char>(stream), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t runs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& file : FilesIn(argv[i])) {
            Run(file);
            ++runs;
        }
    }
    std::printf("%zu inputs\n", runs);
    return runs == 0 ? 1 : 0;  // a corpus that is not there proves nothing
}
