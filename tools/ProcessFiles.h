#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qel {

/// A descriptor by which a process has a memory file open.
struct MemoryFileUser {
    pid_t pid = 0;
    std::string command;
    int fd = -1;
    bool writes = false;  ///< open for writing too
};

/// Who has a memory file open.
struct MemoryFileUsers {
    std::vector<MemoryFileUser> users;  ///< by process, then by descriptor
    unsigned hiddenProcesses = 0;       ///< may not be looked into by this user
};

/// Looks through the descriptors of all processes for the memory file that is inode `inode` of
/// device `device`. Processes that come or go meanwhile may be missing.
/// @throws std::runtime_error when /proc cannot be read
[[nodiscard]] MemoryFileUsers UsersOfMemoryFile(dev_t device, ino_t inode);

}  // namespace qel
