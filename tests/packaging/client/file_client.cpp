// Writes a word into a mapped file of its own and reads it through a second mapping.

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>

#include "MappedFile.h"

namespace {

struct RemovedAtEnd {
    const std::string& path;
    ~RemovedAtEnd() { ::unlink(path.c_str()); }
};

}  // namespace

int main() {
    const std::string path = "/tmp/qev-test-file-client-" + std::to_string(::getpid());
    const RemovedAtEnd removed{path};
    const std::string text = "across";
    try {
        qel::MappedFile written(path, true);
        if (!written.TruncateTo(text.size())) {
            return 1;
        }
        std::copy(text.begin(), text.end(), written.Data());
        const qel::MappedFile read(path, false);
        std::cout << std::string(read.Data(), read.Data() + read.Length()) << '\n';
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
