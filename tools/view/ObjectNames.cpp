#include "ObjectNames.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "File.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

/// What stands between `prefix` and `suffix` in the names of a folder's files.
std::vector<std::string> NamesIn(const std::string& folder, std::string_view prefix,
                                 std::string_view suffix) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.size() > prefix.size() + suffix.size() &&
            name.compare(0, prefix.size(), prefix) == 0 &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            names.push_back(
                name.substr(prefix.size(), name.size() - prefix.size() - suffix.size()));
        }
    }
    if (error) {
        FailToRead(folder, error.value());
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

std::vector<std::string> RingNames() {
    return NamesIn("/dev/shm", "", ".shm");
}

std::vector<std::string> SemaphoreNames() {
    return NamesIn("/dev/shm", "sem.", "");
}

std::vector<std::string> BlockNames() {
    return NamesIn("/tmp", "", "_shm.lock");
}

}  // namespace qel
