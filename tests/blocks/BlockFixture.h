#pragma once

#include <dirent.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Files.h"
#include "ProcessState.h"
#include "SharedMemoryBlock.h"
#include "SharedMemoryMetadata.h"
#include "Sys.h"
#include "Thrown.h"
#include "UniqueBlockName.h"

namespace qel::test {

/// The record that stands in the lock file at `path`.
inline SharedMemoryMetadata StoredRecord(const std::string& path) {
    const std::string content = ReadFile(path);
    SharedMemoryMetadata record;
    if (content.size() == 40) {
        std::memcpy(&record, content.data() + 8, sizeof(record));
    }
    return record;
}

/// Makes a lock file at `path` that announces `record`.
inline void StoreRecord(const std::string& path, const SharedMemoryMetadata& record) {
    std::string content(40, '\0');
    content[0] = 1;
    std::memcpy(content.data() + 8, &record, sizeof(record));
    WriteFile(path, content);
}

/// The link under which `record` announces a memory file.
inline std::string AnnouncedPath(const SharedMemoryMetadata& record) {
    return "/proc/" + std::to_string(record.pid) + "/fd/" + std::to_string(record.fd);
}

/// The data of a block as a text.
inline std::string DataOf(SharedMemoryBlock& block) {
    block.LockForRead();
    std::string data(reinterpret_cast<const char*>(block.GetDataForRead()), block.Size());
    block.UnlockForRead();
    return data;
}

/// Puts `text` at the beginning of a block's data.
inline void Put(SharedMemoryBlock& block, std::string_view text) {
    block.LockForWrite();
    std::memcpy(block.GetDataForWrite(), text.data(), text.size());
    block.UnlockForWrite();
}

/// A block name of its own, and ways to make blocks of it.
class BlockTest : public ::testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<SharedMemoryBlock> Creator(std::uint64_t size = 1000) const {
        return std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name_.Name(), true,
                                                   size);
    }
    [[nodiscard]] std::unique_ptr<SharedMemoryBlock> Opener() const {
        return std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name_.Name(), false, 0);
    }
    /// Why a block cannot be made, "nothing thrown" if it can.
    [[nodiscard]] std::string CreatorFailure(std::uint64_t size = 1000) const {
        return Thrown([&] { (void)Creator(size); });
    }
    [[nodiscard]] std::string OpenerFailure() const {
        return Thrown([&] { (void)Opener(); });
    }

    [[nodiscard]] SharedMemoryMetadata Record() const { return StoredRecord(lockPath_); }
    [[nodiscard]] Held Lock() const { return LockOn(lockPath_); }
    /// What this process holds of the block: of its lock file and of its memory file.
    [[nodiscard]] Holdings Holding() const { return HoldingsOf(name_.Name()); }

    UniqueBlockName name_;
    std::string lockPath_ = name_.LockPath();
};

}  // namespace qel::test
