#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <list>
#include <memory>

#include "ControlQueue.h"
#include "EndOfStream.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "PacketWriter.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::_;
using testing::NiceMock;
using testing::Return;

/// A control ring that holds what a test puts there, and notes in which order it goes.
class ScriptedRing {
public:
    ScriptedRing() {
        ON_CALL(ring_, DoReadNextPacket()).WillByDefault([this] { return Read(); });
        ON_CALL(ring_, DoReleasePacket(_)).WillByDefault([this](const Packet& packet) {
            EXPECT_LT(released_, read_);
            EXPECT_EQ(packet.data.data(), contents_[released_]->data());
            ++released_;
            return SMStatusCode::SUCCESS;
        });
    }

    SharedPacketBufferIF& Ring() { return ring_; }
    void Add(ControlHead head, const std::string& text = {}) {
        const ByteSpan span = BytesOf(head);
        std::string bytes(span.begin(), span.end());
        AddBytes(bytes + text, false);
    }
    void AddFrame(std::int64_t pts, std::uint64_t size = 3, std::uint64_t mark = 0) {
        Packet packet;
        packet.header.pts = pts;
        ControlHead head = MakeFrameHead(packet, size);
        head.offset = mark;
        Add(head);
    }
    void AddEvent(const std::string& text) { Add(MakeEventHead(ControlKind::Custom), text); }
    void AddBytes(const std::string& bytes, bool isFiller) {
        contents_.push_back(
            std::make_unique<std::vector<unsigned char>>(bytes.begin(), bytes.end()));
        Packet packet;
        packet.header.ignoreData = isFiller;
        packet.data = *contents_.back();
        packets_.push_back(packet);
    }
    [[nodiscard]] std::size_t Left() const { return packets_.size() - read_; }
    [[nodiscard]] std::size_t Held() const { return read_ - released_; }

private:
    ReadNextPacketResult Read() {
        if (Left() == 0) {
            return {{}, 0, SMStatusCode::DATA_NOT_AVAILABLE};
        }
        return {packets_[read_++], 0, SMStatusCode::SUCCESS};
    }

    NiceMock<MockPacketBuffer> ring_;
    std::deque<std::unique_ptr<std::vector<unsigned char>>> contents_;
    std::deque<Packet> packets_;
    std::size_t read_ = 0;
    std::size_t released_ = 0;
};

std::vector<std::string> TextsOf(const ControlQueue::Match& match) {
    std::vector<std::string> texts;
    for (const ControlRecord& event : match.events) {
        texts.push_back(event.text);
    }
    return texts;
}

using Texts = std::vector<std::string>;

class ControlQueueTest : public testing::Test {
protected:
    ~ControlQueueTest() override { EXPECT_EQ(ring_.Held(), 0U); }  // each record goes on at once

    ControlQueue::Match Take(std::int64_t pts, std::size_t size = 3) {
        return queue_.Take(OwnedPacket(size, pts).Get());
    }

    ScriptedRing ring_;
    ControlQueue queue_{ring_.Ring()};
};

TEST_F(ControlQueueTest, EachPacketGetsItsRecord) {
    for (int i = 0; i < 5; ++i) {
        ring_.AddFrame(i, 3, 100 + static_cast<std::uint64_t>(i));
    }
    for (int i = 0; i < 5; ++i) {
        const auto match = Take(i);
        ASSERT_TRUE(match.details) << i;
        EXPECT_EQ(match.details->offset, 100 + static_cast<std::uint64_t>(i));
        EXPECT_EQ(match.events.size(), 0U);
        EXPECT_EQ(ring_.Left(), 4 - static_cast<std::size_t>(i)) << "reads no further than it must";
    }
}

TEST_F(ControlQueueTest, EventsAreDueAheadOfThePacketBehindThemInOrder) {
    ring_.AddEvent("a");
    ring_.AddEvent("b");
    ring_.AddFrame(1);
    ring_.AddEvent("c");
    ring_.AddFrame(2);
    EXPECT_EQ(TextsOf(Take(1)), (Texts{"a", "b"}));
    EXPECT_EQ(TextsOf(Take(2)), (Texts{"c"}));
}

TEST_F(ControlQueueTest, RecordsWithoutAPacketArePassedOverAndEventsAmongThemAreNot) {
    ring_.AddFrame(1);
    ring_.AddEvent("a");
    ring_.AddFrame(2);
    ring_.AddFrame(3, 3, 33);
    const auto match = Take(3);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->offset, 33U);
    EXPECT_EQ(TextsOf(match), (Texts{"a"}));
    EXPECT_FALSE(Take(1).details) << "gone with the packets before";
}

TEST_F(ControlQueueTest, PacketWithoutRecordConsumesNothing) {
    ring_.AddEvent("a");
    ring_.AddFrame(2, 3, 22);
    const auto none = Take(1);
    EXPECT_FALSE(none.details);
    EXPECT_EQ(none.events.size(), 0U);
    const auto match = Take(2);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->offset, 22U);
    EXPECT_EQ(TextsOf(match), (Texts{"a"}));
}

TEST_F(ControlQueueTest, RecordIsThatOfThePacketsTimeStampAndSize) {
    ring_.AddFrame(1, 4, 14);
    ring_.AddFrame(1, 3, 13);
    const auto match = Take(1, 3);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->offset, 13U);
}

TEST_F(ControlQueueTest, RecordIsThatOfThePacketsCaptureTime) {
    const OwnedPacket owned(3, -1);
    Packet packet = owned.Get();
    for (const auto& [seconds, microseconds] : {std::pair{5U, 6U}, {7U, 8U}, {5U, 8U}}) {
        packet.header.timestampSec = seconds;
        packet.header.timestampUsec = microseconds;
        ring_.Add(MakeFrameHead(packet, 3));
    }
    const auto match = queue_.Take(packet);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->control.timeStamp, 5U);
    EXPECT_EQ(match.details->control.startTick, 8U);
}

TEST_F(ControlQueueTest, EmptyPacketsHaveRecordsToo) {
    ring_.AddFrame(-1, 0, 5);
    const auto match = Take(-1, 0);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->offset, 5U);
}

TEST_F(ControlQueueTest, EndMarkGetsTheRecordOfTheEndOnly) {
    ControlHead frame = MakeFrameHead({}, 0);
    frame.pts = kEndOfStreamPts;
    ring_.Add(frame);
    ControlHead end = MakeFrameHead(MakeEndOfStream(), 0);
    end.offset = 9;
    ASSERT_EQ(end.kind, ControlKind::EndOfStream);
    ring_.AddEvent("a");
    ring_.Add(end);
    const auto match = queue_.Take(MakeEndOfStream());
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->offset, 9U);
    EXPECT_EQ(TextsOf(match), (Texts{"a"}));
}

TEST_F(ControlQueueTest, EventIsTakenAloneIfNoPacketStandsAheadOfIt) {
    EXPECT_FALSE(queue_.TakeEvent());
    ring_.AddEvent("a");
    ring_.AddEvent("b");
    ring_.AddFrame(1);
    ring_.AddEvent("c");
    EXPECT_EQ(queue_.TakeEvent()->text, "a");
    EXPECT_EQ(queue_.TakeEvent()->text, "b");
    EXPECT_FALSE(queue_.TakeEvent()) << "a packet stands ahead of c";
    EXPECT_FALSE(queue_.TakeEvent());
    EXPECT_TRUE(Take(1).details);
    EXPECT_EQ(queue_.TakeEvent()->text, "c");
    EXPECT_FALSE(queue_.TakeEvent());
}

TEST_F(ControlQueueTest, StateIsFoundByItsSerialAndKeepsItsPlace) {
    ring_.AddFrame(1);
    for (const std::uint32_t serial : {5U, 6U}) {
        ControlHead head = MakeEventHead(ControlKind::State);
        head.serial = serial;
        const std::string number = std::to_string(serial);
        ring_.Add(head, "serial " + number + "\ncaps a/" + number + "\n");
    }
    ControlHead caps = MakeEventHead(ControlKind::Caps);
    caps.serial = 7;
    ring_.Add(caps, "serial 7\ncaps a/7\n");
    EXPECT_EQ(queue_.FindState(6)->caps, "a/6");
    EXPECT_EQ(queue_.FindState(5)->caps, "a/5");
    EXPECT_FALSE(queue_.FindState(7)) << "of another kind";
    EXPECT_FALSE(queue_.FindState(8));
    EXPECT_TRUE(Take(1).details);
    EXPECT_EQ(queue_.TakeEvent()->head.serial, 5U);
    EXPECT_EQ(queue_.TakeEvent()->head.serial, 6U);
}

TEST_F(ControlQueueTest, FillersAreHandedOnSilently) {
    ring_.AddBytes(std::string(200, 'q'), true);
    ring_.AddEvent("a");
    ring_.AddBytes("", true);
    ring_.AddFrame(1);
    const auto match = Take(1);
    EXPECT_TRUE(match.details);
    EXPECT_EQ(TextsOf(match), (Texts{"a"}));
}

TEST_F(ControlQueueTest, FillerThatHoldsARecordsBytesIsNoRecord) {
    ControlHead head = MakeEventHead(ControlKind::Custom);
    const ByteSpan span = BytesOf(head);
    ring_.AddBytes(std::string(span.begin(), span.end()), true);
    EXPECT_FALSE(queue_.TakeEvent());
    ring_.AddFrame(1);
    EXPECT_EQ(Take(1).events.size(), 0U);
}

TEST_F(ControlQueueTest, GarbageIsPassedOver) {
    for (const std::size_t size : {0U, 1U, 87U, 143U, 144U, 145U, 5000U}) {
        ring_.AddBytes(std::string(size, '\xff'), false);
    }
    ring_.AddFrame(1, 3, 11);
    const auto match = Take(1);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->offset, 11U);
}

TEST_F(ControlQueueTest, RecordsOfPacketsThatNeverComeDoNotGatherWithoutEnd) {
    constexpr int kMany = 65536 + 10;
    ring_.AddEvent("oldest");
    for (int i = 0; i < kMany; ++i) {
        ring_.AddFrame(i, 3, static_cast<std::uint64_t>(i));
    }
    EXPECT_FALSE(Take(-5).details) << "all has been looked at";
    EXPECT_EQ(ring_.Left(), 0U);
    EXPECT_FALSE(Take(0).details) << "the oldest records are given up";
    EXPECT_TRUE(Take(kMany - 1).details);
}

TEST(ControlQueueOnARing, ReadsWhatAWriterHasGatheredAndHandsItOn) {
    constexpr std::uint64_t kSize = 1000;
    const UniqueRingName name;
    const auto writing = OpenRing({name.Name(), kSize, 0, false, 0});
    const auto reading = OpenRing({name.Name(), kSize, 1, true, 0});
    PacketWriter writer(*writing, kSize);
    ControlQueue queue(*reading);
    for (int i = 0; i < 50; ++i) {  // several times round the ring
        std::string text = "event " + std::to_string(i);
        ControlHead head = MakeEventHead(ControlKind::Custom);
        ASSERT_EQ(
            writer.WriteGathered(
                {}, {BytesOf(head), {reinterpret_cast<unsigned char*>(text.data()), text.size()}}),
            WriteOutcome::Written);
        const auto event = queue.TakeEvent();
        ASSERT_TRUE(event) << i;
        EXPECT_EQ(event->text, text);
        EXPECT_FALSE(queue.TakeEvent());
    }
}

TEST(ControlQueueOfForgedCounters, GivesUpWhenARecordCannotBeHandedOn) {
    NiceMock<MockPacketBuffer> ring;
    int reads = 0;
    ON_CALL(ring, DoReadNextPacket()).WillByDefault([&reads] {
        const bool isEndless = ++reads < 1000;
        const auto status = isEndless ? SMStatusCode::SUCCESS : SMStatusCode::DATA_NOT_AVAILABLE;
        return ReadNextPacketResult{{}, 0, status};
    });
    ON_CALL(ring, DoReleasePacket(_)).WillByDefault(Return(SMStatusCode::INVALID_PARAMETER));
    ControlQueue queue(ring);
    EXPECT_FALSE(queue.Take(Packet()).details);
    EXPECT_FALSE(queue.FindState(1));
    EXPECT_FALSE(queue.TakeEvent());
    EXPECT_EQ(reads, 3);
}

}  // namespace
}  // namespace qel::test
