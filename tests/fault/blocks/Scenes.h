#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CallFaults.h"
#include "SharedMemoryBlock.h"

namespace qel::test {

/// Bytes of data of the blocks in which processes die, all `kOld` ahead of the death.
inline constexpr std::uint64_t kDataSize = 64;
inline constexpr char kOld = 'a';
/// What the dying process writes.
inline constexpr char kNew = 'b';

/// What a process finds.
enum class World {
    NoLockFile,
    EmptyLockFile,
    ShortLockFile,     ///< 16 bytes
    LongLockFile,      ///< 100 bytes
    NoRecord,          ///< a lock file that no creator has written to
    StaleRecord,       ///< its creator is gone, survivors have the block open
    ReusedDescriptor,  ///< its creator lives, but has another file under the number
    LiveBlock,
};

/// What a process has open before it begins.
enum class Role { None, Creator, Writer, Reader };

/// The process that dies.
class Actor {
public:
    Actor(std::string name, Role role);

    /// Constructs a block; `size` is only looked at by a creating side.
    void Construct(bool create, std::uint64_t size = 0);
    void Destroy() { block_.reset(); }
    [[nodiscard]] SharedMemoryBlock& Block() { return *block_; }

    /// Writes one byte, the first half and then all of the data. Between them the process can be
    /// killed, as it can ahead of a call.
    void WriteData(CallFaults& faults);

private:
    std::string name_;
    std::unique_ptr<SharedMemoryBlock> block_;
};

/// What a process does when it is killed.
struct Scene {
    const char* name;   ///< of the test
    const char* title;  ///< in the documentation
    World world;
    Role role;
    bool alongside;  ///< a survivor holds a read lock meanwhile
    void (*act)(Actor& actor, CallFaults& faults);
};

const std::vector<Scene>& Scenes();
const Scene& SceneNamed(const std::string& name);

/// The scenes in which the lock file or the memory is touched.
std::vector<Scene> TouchingScenes();

}  // namespace qel::test
