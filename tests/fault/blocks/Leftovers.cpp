#include "Leftovers.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace qel::test {
namespace {

namespace fs = std::filesystem;

bool IsNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool HasOpen(const fs::path& process, const std::string& memory) {
    std::error_code ended;
    for (auto link = fs::directory_iterator(process / "fd", ended);
         !ended && link != fs::directory_iterator(); link.increment(ended)) {
        std::error_code closed;
        if (fs::read_symlink(link->path(), closed).string().find(memory) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::vector<std::string> FilesNamed(const std::string& name) {
    std::vector<std::string> found;
    for (const char* const directory : {"/tmp", "/dev/shm"}) {
        std::error_code error;
        for (auto file = fs::directory_iterator(directory, error);
             !error && file != fs::directory_iterator(); file.increment(error)) {
            if (file->path().filename().string().find(name) != std::string::npos) {
                found.push_back(file->path().string());
            }
        }
    }
    return found;
}

std::vector<pid_t> OtherHoldersOfMemory(const std::string& name) {
    std::vector<pid_t> found;
    std::error_code error;
    for (auto process = fs::directory_iterator("/proc", error);
         !error && process != fs::directory_iterator(); process.increment(error)) {
        const std::string number = process->path().filename().string();
        if (IsNumber(number) && std::stol(number) != ::getpid() &&
            HasOpen(process->path(), "memfd:/" + name)) {
            found.push_back(static_cast<pid_t>(std::stol(number)));
        }
    }
    return found;
}

SharedMemoryMetadata RecordIn(const std::string& content) {
    SharedMemoryMetadata record;
    if (content.size() == 8 + sizeof(record)) {
        std::memcpy(&record, content.data() + 8, sizeof(record));
    }
    return record;
}

std::string WithRecord(const SharedMemoryMetadata& record) {
    std::string content(8 + sizeof(record), '\0');
    content[0] = 1;
    std::memcpy(content.data() + 8, &record, sizeof(record));
    return content;
}

}  // namespace qel::test
