#include "ProcessFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <tuple>

namespace qel {
namespace {

namespace fs = std::filesystem;

std::optional<int> Number(const std::string& text) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end) {
        return std::nullopt;
    }
    return number;
}

/// The entries of a folder of /proc whose names are numbers.
std::vector<int> NumberedEntries(const fs::path& folder, std::error_code& error) {
    std::vector<int> numbers;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (const auto number = Number(entry->path().filename())) {
            numbers.push_back(*number);
        }
    }
    return numbers;
}

/// Other files are left alone: to ask a file of a dead file server would wait for it.
bool IsMemoryFile(const fs::path& link, std::error_code& error) {
    return fs::read_symlink(link, error).native().rfind("/memfd:", 0) == 0;
}

bool IsFile(const fs::path& link, dev_t device, ino_t inode) {
    struct stat status {};
    return stat(link.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

std::string CommandOf(const fs::path& process) {
    std::string command;
    std::getline(std::ifstream(process / "comm"), command);
    return command;
}

bool Writes(const fs::path& process, int fd) {
    std::ifstream info(process / "fdinfo" / std::to_string(fd));
    for (std::string word; info >> word;) {
        if (word == "flags:" && info >> word) {
            constexpr int kOctal = 8;
            return (std::strtol(word.c_str(), nullptr, kOctal) & O_ACCMODE) != O_RDONLY;
        }
    }
    return false;
}

/// Adds the descriptors of one process.
/// @return false if this user may not see all of them
bool AddUses(int pid, dev_t device, ino_t inode, std::vector<MemoryFileUser>& users) {
    const fs::path process = fs::path("/proc") / std::to_string(pid);
    std::error_code error;
    const auto descriptors = NumberedEntries(process / "fd", error);
    bool isHidden = error == std::errc::permission_denied;
    for (const int fd : descriptors) {
        const fs::path link = process / "fd" / std::to_string(fd);
        if (IsMemoryFile(link, error) && IsFile(link, device, inode)) {
            users.push_back({pid, CommandOf(process), fd, Writes(process, fd)});
        }
        isHidden = isHidden || error == std::errc::permission_denied;
    }
    return !isHidden;
}

}  // namespace

MemoryFileUsers UsersOfMemoryFile(dev_t device, ino_t inode) {
    MemoryFileUsers found;
    std::error_code error;
    const auto processes = NumberedEntries("/proc", error);
    if (error) {
        throw std::runtime_error("cannot read /proc: " + std::to_string(error.value()) + "(" +
                                 error.message() + ")");
    }
    for (const int pid : processes) {
        if (!AddUses(pid, device, inode, found.users)) {
            ++found.hiddenProcesses;
        }
    }
    std::sort(found.users.begin(), found.users.end(),
              [](const MemoryFileUser& left, const MemoryFileUser& right) {
                  return std::tie(left.pid, left.fd) < std::tie(right.pid, right.fd);
              });
    return found;
}

}  // namespace qel
