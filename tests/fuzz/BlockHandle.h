#pragma once

#include <memory>
#include <string>

#include "Input.h"
#include "ProcessState.h"
#include "SharedMemoryBlockReaderIF.h"
#include "SharedMemoryBlockWriterIF.h"

namespace qel::fuzz {

/// A reader's or a writer's handle and what the rules of locking make of it. Each operation is
/// done to both, and what the handle answers is compared.
class BlockHandle {
public:
    /// @param content  of the block's data, shared by all handles of that block
    BlockHandle(std::unique_ptr<SharedMemoryBlockReaderIF> reader, std::shared_ptr<Bytes> content)
        : reader_(std::move(reader)), content_(std::move(content)) {}
    BlockHandle(std::unique_ptr<SharedMemoryBlockWriterIF> writer, std::shared_ptr<Bytes> content)
        : writer_(std::move(writer)), content_(std::move(content)) {}

    /// @param others  how other handles hold the lock file: for what waits for them nobody waits
    void LockForRead(bool mayWait, test::Held others);
    void UnlockForRead();
    void LockForWrite(bool mayWait, test::Held others);
    void UnlockForWrite();
    void ReadData();
    void WriteData(Input& input);

    /// Fails unless the memory can be accessed as the locks say.
    void CompareAccess() const;

    [[nodiscard]] test::Held Lock() const { return held_; }

private:
    [[nodiscard]] const unsigned char* DataForRead() const;

    std::unique_ptr<SharedMemoryBlockReaderIF> reader_;  ///< one of the two
    std::unique_ptr<SharedMemoryBlockWriterIF> writer_;
    std::shared_ptr<Bytes> content_;
    const unsigned char* data_ = nullptr;  ///< once the handle has told it

    int shared_ = 0;          ///< shared locks of the lock file
    bool isReader_ = false;   ///< this thread is among the reading ones
    bool exclusive_ = false;  ///< the exclusive lock of the lock file
    bool isWriter_ = false;   ///< this thread was the last to lock for writing
    bool mayRead_ = false;
    bool mayWrite_ = false;
    test::Held held_ = test::Held::No;
};

}  // namespace qel::fuzz
