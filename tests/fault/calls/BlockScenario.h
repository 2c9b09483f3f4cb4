#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Files.h"
#include "ProcessState.h"
#include "Scenario.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "SharedMemoryMetadata.h"
#include "Sys.h"

namespace qel::test {

/// A block of 1000 bytes that somebody else may have made and written to.
class BlockScenario : public Scenario {
public:
    static constexpr std::uint64_t kSize = 1000;
    static constexpr const char* kContent = "what was there before";

    using Scenario::Scenario;

    [[nodiscard]] std::map<std::string, std::string> Marks() const override {
        return {{"{lock}", std::to_string(lock_)},
                {"{memory}", std::to_string(memory_)},
                {"{file}", announced_}};
    }
    /// How the lock file is locked.
    std::string State() override {
        if (::access(names_.block.LockPath().c_str(), F_OK) != 0) {
            return "no lock file";
        }
        switch (LockOn(names_.block.LockPath())) {
            case Held::Shared:
                return "locked shared";
            case Held::Exclusive:
                return "locked exclusively";
            case Held::No:
                break;
        }
        return "not locked";
    }
    void Again() override {
        if (creator_) {
            EXPECT_EQ(ContentOf(*creator_), kContent) << "to those who have it";
        }
        creator_.reset();
        SharedMemoryBlockWriter writer(std::make_shared<Sys>(), names_.block.Name(), kSize);
        Fill(writer, "new content");
        SharedMemoryBlockReader reader(std::make_shared<Sys>(), names_.block.Name());
        reader.Lock();
        EXPECT_STREQ(reinterpret_cast<const char*>(reader.GetData()), "new content");
        reader.Unlock();
    }

protected:
    static void Fill(SharedMemoryBlockWriter& writer, const char* content) {
        writer.LockForWrite();
        std::strcpy(reinterpret_cast<char*>(writer.GetDataForWrite()), content);
        writer.UnlockForWrite();
    }
    static std::string ContentOf(SharedMemoryBlockWriter& writer) {
        writer.LockForRead();
        std::string content(reinterpret_cast<const char*>(writer.GetDataForRead()));
        writer.UnlockForRead();
        return content;
    }

    /// A process that has the block, and keeps it.
    void MakeCreator() {
        creator_ = std::make_unique<SharedMemoryBlockWriter>(std::make_shared<Sys>(),
                                                             names_.block.Name(), kSize);
        Fill(*creator_, kContent);
        Announce();
    }
    /// Notes where the record says that the memory is.
    void Announce() {
        SharedMemoryMetadata record;
        const std::string file = ReadFile(names_.block.LockPath());
        ASSERT_EQ(file.size(), 40U);
        std::memcpy(&record, file.data() + 8, sizeof(record));
        announced_ = BlockMemoryPath(record.pid, record.fd);
    }
    /// Notes the descriptors that the next object gets.
    void NoteDescriptors() {
        lock_ = NextDescriptor();
        const int held = ::dup(0);
        memory_ = NextDescriptor();
        ::close(held);
    }

    std::unique_ptr<SharedMemoryBlockWriter> creator_;

private:
    int lock_ = -1;
    int memory_ = -1;
    std::string announced_ = "(no record)";
};

// Calls on a block.
inline constexpr const char* kLockOpen = "open(LOCK, 655426, 438)";
inline constexpr const char* kLockStat = "fstat(LOCK)";
inline constexpr const char* kLockRoom = "posix_fallocate(LOCK, 0, 40)";
inline constexpr const char* kLockSize = "ftruncate(LOCK, 40)";
inline constexpr const char* kLockMap = "mmap(40, 3, 1, LOCK, 0)";
inline constexpr const char* kLockUnmap = "munmap(40)";
inline constexpr const char* kLockClose = "close(LOCK)";
inline constexpr const char* kFlockShared = "flock(LOCK, 1)";
inline constexpr const char* kFlockExclusive = "flock(LOCK, 2)";
inline constexpr const char* kFlockUnlock = "flock(LOCK, 8)";
inline constexpr const char* kProtect = "mprotect(1008, 0)";
inline constexpr const char* kMemoryClose = "close(MEMORY)";
inline constexpr const char* kMemoryUnmap = "munmap(1008)";

inline Outcome NotUnmapped(const Outcome& success) {
    return success.Prints("Problem unmapping shared memory fd - {errno}\n");
}

/// What comes of refusals when a block ends: all is given back that can be.
inline std::vector<Row> EndingRows(const Outcome& success) {
    return {At(kMemoryClose, success), At(kLockClose, success),
            At(kLockUnmap, success).Ever(NotUnmapped(success)),
            At(kMemoryUnmap, NotUnmapped(success))};
}

inline Outcome NotProtected() {
    return Throws("Unable to mprotect shared memory - {errno}({strerror})");
}

inline Outcome NotUnlocked() {
    return Throws("failed to unlock:{strerror}");
}

}  // namespace qel::test
