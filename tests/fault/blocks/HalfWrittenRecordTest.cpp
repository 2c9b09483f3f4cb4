// Records that are put together of pieces of two, as a death between their bytes can leave them.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

#include "CapturedLog.h"
#include "Files.h"
#include "Finding.h"
#include "Leftovers.h"
#include "Scenes.h"
#include "Sys.h"
#include "Thrown.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

/// Two blocks that live, so that either record leads somewhere, which is worse than any death
/// leaves it: a writer only writes over a record that leads nowhere.
class ARecordOfTwoBlocks : public ::testing::Test {
protected:
    static std::unique_ptr<SharedMemoryBlock> Make(const UniqueBlockName& name, char content) {
        auto block =
            std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name.Name(), true, kSize);
        block->LockForWrite();
        std::memset(block->GetDataForWrite(), content, kSize);
        block->UnlockForWrite();
        return block;
    }
    /// The first byte of the block that `content` of a lock file leads to, or 0 for a refusal.
    char Found(const std::string& content) {
        WriteFile(asked_.LockPath(), content);
        char found = 0;
        const std::string refusal = Thrown([&] {
            SharedMemoryBlock block(std::make_shared<Sys>(), asked_.Name(), false, 0);
            block.LockForRead();
            found = static_cast<char>(*block.GetDataForRead());
            block.UnlockForRead();
        });
        EXPECT_TRUE(found != 0 || IsRefusalOfStaleRecord(refusal)) << refusal;
        return found;
    }
    /// Expects a block to be found only through the whole of its record.
    void Expect(const std::string& content) {
        const char expected = content == old_ ? 'o' : content == new_ ? 'n' : '\0';
        EXPECT_EQ(Found(content), expected);
    }
    /// The first, with the pieces of the second for which `isNew` says so.
    template <typename IsNew>
    [[nodiscard]] std::string Mix(std::size_t piece, const IsNew& isNew) const {
        std::string mixed = old_;
        for (std::size_t at = 8; at < mixed.size(); at += piece) {
            if (isNew((at - 8) / piece)) {
                mixed.replace(at, piece, new_, at, piece);
            }
        }
        return mixed;
    }

    static constexpr std::uint64_t kSize = 16;
    CapturedLog log_;
    UniqueBlockName oldName_;
    UniqueBlockName newName_;
    UniqueBlockName asked_;
    std::unique_ptr<SharedMemoryBlock> oldBlock_ = Make(oldName_, 'o');
    std::unique_ptr<SharedMemoryBlock> newBlock_ = Make(newName_, 'n');
    std::string old_ = ReadFile(oldName_.LockPath());
    std::string new_ = ReadFile(newName_.LockPath());
};

TEST_F(ARecordOfTwoBlocks, LeadsToOneOfThemOnlyIfItIsWhole) {
    EXPECT_EQ(Found(old_), 'o');
    EXPECT_EQ(Found(new_), 'n');
}

TEST_F(ARecordOfTwoBlocks, WrittenForwardsUpToAnyByteLeadsNowhere) {
    for (std::size_t written = 0; written <= 32; ++written) {
        SCOPED_TRACE(written);
        Expect(Mix(1, [written](std::size_t byte) { return byte < written; }));
    }
}

TEST_F(ARecordOfTwoBlocks, WrittenBackwardsDownToAnyByteLeadsNowhere) {
    for (std::size_t written = 0; written <= 32; ++written) {
        SCOPED_TRACE(written);
        Expect(Mix(1, [written](std::size_t byte) { return byte >= 32 - written; }));
    }
}

TEST_F(ARecordOfTwoBlocks, WithAnyOfItsWordsWrittenLeadsNowhere) {
    for (unsigned words = 0; words < 256; ++words) {
        SCOPED_TRACE(words);
        Expect(Mix(4, [words](std::size_t word) { return (words >> word & 1U) != 0; }));
    }
}

// The creator dies before its flag says that there is a record.
TEST_F(ARecordOfTwoBlocks, WithoutItsFlagIsNone) {
    std::string content = new_;
    content[0] = 0;
    WriteFile(asked_.LockPath(), content);
    for (const bool create : {false, true}) {
        EXPECT_EQ(
            Thrown([&] { SharedMemoryBlock(std::make_shared<Sys>(), asked_.Name(), create, 0); }),
            "failed to open shared memory: failed to read lockFile to get metadata");
    }
    const SharedMemoryBlock fresh(std::make_shared<Sys>(), asked_.Name(), true, 5);
    EXPECT_EQ(fresh.Size(), 5U);
}

}  // namespace
}  // namespace qel::test
