#pragma once

#include <string>
#include <vector>

#include "FileDescriptor.h"
#include "Input.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"

namespace qel::fuzz {

/// A lock file of any bytes, and what its record may point to: a memory file of any content and
/// size, or something else. All of it belongs to this process, and is removed at the end.
class ForgedBlock {
public:
    explicit ForgedBlock(Input& input);

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::string LockPath() const { return name_.LockPath(); }

    /// Replaces some bytes of the lock file, which keeps its length or grows.
    void Forge(Input& input);

    /// The lock file's 40 bytes, as a reader has to take them.
    [[nodiscard]] Bytes LockImage() const;

    /// Why the block as it stands is not opened; empty if it is.
    [[nodiscard]] std::string Refusal(bool isWriter) const;

    /// Bytes of data of the block that is opened.
    [[nodiscard]] std::uint64_t Size() const;

private:
    void MakeMemory(Input& input);
    void MakeMemoryFile(Input& input);
    void KeepToOurOwn() const;
    [[nodiscard]] SharedMemoryMetadata RecordFrom(Input& input) const;
    [[nodiscard]] SharedMemoryMetadata Record() const;
    /// What the record leads to while the lock file is open: its path, or a link to it.
    [[nodiscard]] std::string Target() const;
    [[nodiscard]] std::string RefusalOf(int memory, bool isWriter) const;

    test::UniqueBlockName name_;
    std::vector<FileDescriptor> files_;  ///< the one that records point to comes first
};

}  // namespace qel::fuzz
