#include "SoakBlock.h"

#include <cstring>
#include <future>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "IdleStrategy.h"
#include "InterfaceFactory.h"

namespace qel::test {
namespace {

constexpr unsigned kCreator = 0;
constexpr unsigned kSecondWriter = 3;
constexpr unsigned long kSize = 8192;
constexpr std::size_t kWords = kSize / sizeof(std::uint64_t);
constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15U;

std::uint64_t WordAt(const unsigned char* data, std::size_t index) {
    std::uint64_t word = 0;
    std::memcpy(&word, data + index * sizeof(word), sizeof(word));
    return word;
}

/// All words of a fresh block are 0, as is that of counter 0.
std::uint64_t ExpectedWord(std::uint64_t counter, std::size_t index) {
    return index == 0 ? counter : counter * kFactor * (index + 1);
}

std::unique_ptr<SharedMemoryBlockWriterIF> MakeWriter(const std::string& name, unsigned long size) {
    return InterfaceFactory::Create<SharedMemoryBlockWriterIF, std::string_view, unsigned long>(
        "SharedMemoryWriterIF", name, size);
}

}  // namespace

SoakBlock::SoakBlock(std::string name, unsigned node, SoakBoard& board)
    : name_(std::move(name)), node_(node), board_(board) {
    IdleStrategy idle;
    while (node_ != kCreator && !board_.blockMade && !board_.failed) {
        idle.Idle();
    }
    Open();
    board_.blockMade = true;
}

void SoakBlock::Open() {
    IdleStrategy idle;
    while (!OpenIfThere()) {
        if (board_.failed) {
            throw std::runtime_error("no block: another process has failed");
        }
        ++board_.nodes.at(node_).refusals;
        idle.Idle();
    }
    ++board_.nodes.at(node_).openings;
}

/// False if the block's creator has it closed at the moment.
bool SoakBlock::OpenIfThere() {
    try {
        if (node_ == kCreator || node_ == kSecondWriter) {
            writer_ = MakeWriter(name_, node_ == kCreator ? kSize : 0);
        } else {
            reader_ = InterfaceFactory::Create<SharedMemoryBlockReaderIF, std::string_view>(
                "SharedMemoryReaderIF", name_);
        }
        return true;
    } catch (const std::runtime_error& error) {
        if (node_ == kCreator ||
            std::strstr(error.what(), "failed to open shared memory: ") != error.what()) {
            throw;
        }
        return false;
    }
}

void SoakBlock::Close() {
    writer_.reset();
    reader_.reset();
}

void SoakBlock::Reopen() {
    Close();
    Open();
}

void SoakBlock::Turn(std::uint64_t number) {
    if (!writer_ || number % 3 == 0) {
        if (number % 2 == 0) {
            writer_ ? writer_->LockForRead() : reader_->Lock();
        } else if (!(writer_ ? writer_->TryLockForRead() : reader_->TryLock())) {
            return;
        }
        Read();
        return;
    }
    if (number % 2 == 0) {
        writer_->LockForWrite();
    } else if (!writer_->TryLockForWrite()) {
        return;
    }
    Write();
}

void SoakBlock::TurnOnTwoThreads() {
    if (writer_) {
        writer_->LockForRead();
    } else {
        reader_->Lock();
    }
    auto other = std::async(std::launch::async, [this] {
        if (writer_ ? writer_->TryLockForRead() : reader_->TryLock()) {
            Read();
        }
    });
    other.get();
    Read();
}

/// Under a lock, which it gives back.
void SoakBlock::Read() {
    if (writer_) {
        Check(writer_->GetDataForRead(), writer_->Size());
        writer_->UnlockForRead();
    } else {
        Check(reader_->GetData(), reader_->Size());
        reader_->Unlock();
    }
    ++board_.nodes.at(node_).locks;
}

/// Under a lock, which it gives back.
void SoakBlock::Write() {
    unsigned char* const data = writer_->GetDataForWrite();
    Check(data, writer_->Size());
    const std::uint64_t counter = WordAt(data, 0) + 1;
    for (std::size_t i = 0; i < kWords; ++i) {
        const std::uint64_t word = ExpectedWord(counter, i);
        std::memcpy(data + i * sizeof(word), &word, sizeof(word));
    }
    writer_->UnlockForWrite();
    ++board_.nodes.at(node_).locks;
}

void SoakBlock::Check(const unsigned char* data, std::uint64_t size) const {
    if (size < kSize) {
        throw std::runtime_error("block: size " + std::to_string(size));
    }
    const std::uint64_t counter = WordAt(data, 0);
    for (std::size_t i = 1; i < kWords; ++i) {
        if (WordAt(data, i) != ExpectedWord(counter, i)) {
            throw std::runtime_error("block: word " + std::to_string(i) +
                                     " does not belong to counter " + std::to_string(counter));
        }
    }
}

}  // namespace qel::test
