#include <gtest/gtest.h>

#include <chrono>

#include "ControlQueue.h"
#include "ControlWriter.h"
#include "OpenRing.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 1000;  // room for a few records
using Clock = std::chrono::steady_clock;

class ControlWriterTest : public testing::Test {
protected:
    bool TryWrite(bool mayWait, const std::string& text = {}) {
        ControlHead head = MakeEventHead(ControlKind::Custom);
        head.offset = ++tried_;
        return writer_.TryWrite(head, text, mayWait);
    }
    /// Number of the record that waits next; 0: none does.
    std::uint64_t Take() {
        const auto event = queue_.TakeEvent();
        return event ? event->head.offset : 0;
    }
    void TakeAll() {
        while (Take() != 0) {
        }
    }
    /// Writes as many records as there is room for, and tries one more.
    void Fill() {
        while (TryWrite(true) && writer_.Dropped() == 0) {
        }
        ASSERT_EQ(writer_.Dropped(), 0U);
    }
    /// Goes round the ring once, with a reader that empties it.
    void GoRound() {
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(TryWrite(true));
            ASSERT_EQ(Take(), tried_);
        }
    }

    UniqueRingName name_;
    std::unique_ptr<SharedPacketBufferIF> writing_ = OpenRing({name_.Name(), kSize, 0, false, 0});
    std::unique_ptr<SharedPacketBufferIF> reading_ = OpenRing({name_.Name(), kSize, 1, true, 0});
    ControlWriter writer_{*writing_, kSize};
    ControlQueue queue_{*reading_};
    std::uint64_t tried_ = 0;
};

TEST_F(ControlWriterTest, WritesARecordWithItsText) {
    ControlHead head = MakeEventHead(ControlKind::Tags);
    head.serial = 7;
    for (const std::string& text : {std::string("some tags"), std::string()}) {
        EXPECT_TRUE(writer_.TryWrite(head, text, true));
        const auto event = queue_.TakeEvent();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->head.kind, ControlKind::Tags);
        EXPECT_EQ(event->head.serial, 7U);
        EXPECT_EQ(event->text, text);
    }
    EXPECT_EQ(writer_.Dropped(), 0U);
}

TEST_F(ControlWriterTest, FullRingThatIsInUseIsWaitedForAndNothingIsLeftOut) {
    GoRound();
    Fill();
    const auto begin = Clock::now();
    do {
        ASSERT_FALSE(TryWrite(true));
        ASSERT_FALSE(TryWrite(false)) << "who cannot wait has to do without the packet";
    } while (Clock::now() - begin <= ControlWriter::kPatience);
    EXPECT_EQ(writer_.Dropped(), 0U);
    TakeAll();
    EXPECT_TRUE(TryWrite(true));
    EXPECT_EQ(Take(), tried_);
    EXPECT_EQ(writer_.Dropped(), 0U);
}

TEST_F(ControlWriterTest, FullRingThatNobodyEmptiesIsWaitedForWithPatienceAndThenNoMore) {
    const auto begin = Clock::now();
    Fill();
    while (!TryWrite(true)) {
    }
    EXPECT_GE(Clock::now() - begin, ControlWriter::kPatience);
    EXPECT_EQ(writer_.Dropped(), 1U);
    EXPECT_TRUE(TryWrite(true)) << "patience is gone";
    EXPECT_EQ(writer_.Dropped(), 2U);
    EXPECT_EQ(Take(), 1U) << "what was there is";
}

TEST_F(ControlWriterTest, WhoCannotWaitLeavesRecordsOutAtOnceWhereNobodyReads) {
    Fill();
    EXPECT_TRUE(TryWrite(false));
    EXPECT_EQ(writer_.Dropped(), 1U);
    TakeAll();
    EXPECT_TRUE(TryWrite(false));
    EXPECT_EQ(Take(), tried_) << "there is room again";
    EXPECT_EQ(writer_.Dropped(), 1U);
}

TEST_F(ControlWriterTest, TextTooLargeForTheRingIsLeftOutAtOnce) {
    GoRound();  // else it might be taken for one that nobody reads
    constexpr std::size_t kLongest = kSize - 26 - sizeof(ControlHead) - 130;
    EXPECT_TRUE(TryWrite(true, std::string(kLongest + 1, 'x')));
    EXPECT_EQ(writer_.Dropped(), 1U);
    EXPECT_EQ(Take(), 0U);
    while (!TryWrite(true, std::string(kLongest, 'x'))) {
        TakeAll();  // fillers
    }
    EXPECT_EQ(Take(), tried_);
    EXPECT_EQ(writer_.Dropped(), 1U);
}

}  // namespace
}  // namespace qel::test
