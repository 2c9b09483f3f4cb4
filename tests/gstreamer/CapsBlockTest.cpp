#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "CapsBlock.h"
#include "SharedMemoryBlockWriter.h"
#include "StreamName.h"
#include "StreamNames.h"

namespace qel::test {
namespace {

class CapsBlockTest : public testing::Test {
protected:
    [[nodiscard]] std::optional<StreamState> Load() const { return CapsBlock::Load(block_); }

    UniqueStreamName name_;
    std::string block_ = StreamNames(name_.Name()).caps;
};

TEST_F(CapsBlockTest, HoldsWhatWasStoredLast) {
    CapsBlock block(block_);
    EXPECT_FALSE(Load()) << "nothing stored yet";
    EXPECT_TRUE(block.Store({1, "a/long-name, with=(int)1", "segment", "taglist", ""}));
    EXPECT_EQ(Load()->caps, "a/long-name, with=(int)1");
    EXPECT_TRUE(block.Store({2, "a/b", "", "", ""}));
    const auto state = Load();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->serial, 2U);
    EXPECT_EQ(state->caps, "a/b");
    EXPECT_EQ(state->segment, "");
    EXPECT_EQ(state->tags, "");
}

TEST_F(CapsBlockTest, TooLargeStateIsRefusedAndWhatWasThereStays) {
    CapsBlock block(block_);
    ASSERT_TRUE(block.Store({1, "a/b", "", "", ""}));
    const std::size_t overhead = ToText({2, "x", "", "", ""}).size() - 1;
    const std::size_t largest = (1U << 20U) - 1 - overhead;  // a zero ends the text
    EXPECT_FALSE(block.Store({2, std::string(largest + 1, 'x'), "", "", ""}));
    EXPECT_EQ(Load()->caps, "a/b");
    EXPECT_TRUE(block.Store({2, std::string(largest, 'x'), "", "", ""}));
    EXPECT_EQ(Load()->caps, std::string(largest, 'x'));
}

TEST_F(CapsBlockTest, NothingIsFoundWithoutABlock) {
    EXPECT_FALSE(Load());
}

TEST_F(CapsBlockTest, NothingIsFoundWhenItsWriterHasGone) {
    auto block = std::make_unique<CapsBlock>(block_);
    ASSERT_TRUE(block->Store({1, "a/b", "", "", ""}));
    ASSERT_TRUE(Load());
    block.reset();
    EXPECT_FALSE(Load());
}

TEST_F(CapsBlockTest, BlockOfSomebodyElseHoldsNoState) {
    SharedMemoryBlockWriter foreign(block_, 10);
    foreign.LockForWrite();
    std::memset(foreign.GetDataForWrite(), 'x', 10);  // no zero ends it
    foreign.UnlockForWrite();
    EXPECT_FALSE(Load());
    CapsBlock block(block_);  // attaches, as the block lives
    EXPECT_FALSE(block.Store({1, "a/b", "", "", ""})) << "does not fit in 10 bytes";
    foreign.LockForRead();
    EXPECT_EQ(std::memcmp(foreign.GetDataForRead(), "xxxxxxxxxx", 10), 0);
    foreign.UnlockForRead();
}

}  // namespace
}  // namespace qel::test
