#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qel {

/// A descriptor by which a process has an object open.
struct OpenDescriptor {
    int fd = -1;
    bool writes = false;             ///< open for writing too
    std::vector<unsigned> claims{};  ///< the nodes of the ring that it claims, see NodeClaim
    enum class Lock { None, Shared, Exclusive } lock = Lock::None;  ///< of the whole file
};

/// A process that has an object open or mapped.
struct ObjectUser {
    pid_t pid = 0;
    uid_t uid = 0;
    std::string command;
    char state = '?';  ///< as in /proc/PID/stat: 'T' is stopped
    bool maps = false;
    std::vector<OpenDescriptor> descriptors;  ///< by number
    bool mapsToWrite = false;
    std::uint64_t mappedTo = 0;  ///< highest offset that it maps, and 1; in whole pages

    /// The nodes that it claims.
    [[nodiscard]] std::vector<unsigned> Nodes() const;

    /// False if it can only look.
    [[nodiscard]] bool CanWrite() const;
};

/// Who has which shared object open or mapped: rings' objects and semaphores in /dev/shm, blocks'
/// memory files, blocks' lock files. One pass through all processes but this one; processes that
/// come or go meanwhile may be missing. Does not wait, whatever files processes have open.
class ProcessSurvey {
public:
    /// @throws std::runtime_error when /proc cannot be read
    [[nodiscard]] static ProcessSurvey Take();

    /// Users of the inode `inode` of device `device`, by process.
    [[nodiscard]] const std::vector<ObjectUser>& UsersOf(dev_t device, ino_t inode) const;

    /// Those of them that do more than look.
    [[nodiscard]] std::vector<ObjectUser> WritersOf(dev_t device, ino_t inode) const;

    /// Paths under which processes know files of /dev/shm and lock files, with their devices and
    /// inodes. What was removed is still known by its path, and so are files of another name space.
    using Inodes = std::set<std::pair<dev_t, ino_t>>;
    [[nodiscard]] const std::map<std::string, Inodes>& Paths() const noexcept { return paths_; }

    /// Processes that may not be looked into by this user: they may use anything.
    [[nodiscard]] unsigned HiddenProcesses() const noexcept { return hiddenProcesses_; }

    /// False if /proc does not even list all processes to this user.
    [[nodiscard]] bool ListsAll() const noexcept { return listsAll_; }

    /// True if nobody can use anything unseen.
    [[nodiscard]] bool SeesAll() const noexcept { return listsAll_ && hiddenProcesses_ == 0; }

private:
    friend class ProcessReader;

    std::map<std::pair<dev_t, ino_t>, std::vector<ObjectUser>> users_;
    std::map<std::string, Inodes> paths_;
    unsigned hiddenProcesses_ = 0;
    bool listsAll_ = true;
};

}  // namespace qel
