#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "SharedMemoryBlockReaderIF.h"
#include "SharedMemoryBlockWriterIF.h"
#include "SoakBoard.h"

namespace qel::test {

/// One process's handle of the block. Node 0 creates it, node 3 writes to it as well, the others
/// read. The content is a counter and words that follow from it.
class SoakBlock {
public:
    SoakBlock(std::string name, unsigned node, SoakBoard& board);

    /// Takes a lock, waiting or trying, checks the content and, if this process writes, changes it.
    /// @throws std::runtime_error  if the content is torn or older than before
    void Turn(std::uint64_t number);
    /// As above for reading, on this thread and another at once.
    void TurnOnTwoThreads();
    /// Closes the handle and opens it anew: node 0 makes a new block by this.
    void Reopen();
    void Close();

private:
    void Open();
    bool OpenIfThere();
    void Read();
    void Write();
    void Check(const unsigned char* data, std::uint64_t size) const;

    std::string name_;
    unsigned node_;
    SoakBoard& board_;
    std::unique_ptr<SharedMemoryBlockWriterIF> writer_;
    std::unique_ptr<SharedMemoryBlockReaderIF> reader_;
};

}  // namespace qel::test
