#include <gtest/gtest.h>

#include <algorithm>

#include "EndOfStream.h"
#include "OpenRing.h"
#include "StreamName.h"
#include "StreamNodes.h"
#include "StreamWriter.h"
#include "Thrown.h"

namespace qel::test {
namespace {

class StreamWriterTest : public testing::Test {
protected:
    bool Tell(ControlKind kind, const std::string& text) {
        return writer_.Tell(kind, text, MakeEventHead(kind));
    }
    [[nodiscard]] std::optional<StreamState> Stored() const {
        return CapsBlock::Load(StreamNames(name_.Name()).caps);
    }

    UniqueStreamName name_;
    StreamWriter writer_{Options(name_.Name(), 0, false)};
};

TEST_F(StreamWriterTest, SecondOneIsRefused) {
    EXPECT_EQ(Thrown<NodeTaken>([this] { StreamWriter second(Options(name_.Name(), 0, false)); }),
              "ring " + name_.Name() + ": node 0 is taken by another process or element");
}

TEST_F(StreamWriterTest, TellsReadersAtOnceAndLateOnesThroughTheBlock) {
    StreamReader reader(Options(name_.Name(), 1, true));
    EXPECT_TRUE(Tell(ControlKind::Caps, "a/b"));
    EXPECT_TRUE(Tell(ControlKind::Segment, "some segment"));
    EXPECT_TRUE(Tell(ControlKind::Tags, "some tags"));
    const auto state = Stored();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->caps, "a/b");
    EXPECT_EQ(state->segment, "some segment");
    EXPECT_EQ(state->tags, "some tags");
    EXPECT_NE(state->serial, 0U);
    for (const auto& [kind, text] :
         {std::pair{ControlKind::Caps, "a/b"}, std::pair{ControlKind::Segment, "some segment"},
          std::pair{ControlKind::Tags, "some tags"}}) {
        const auto event = reader.TakeEvent();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->head.kind, kind);
        EXPECT_EQ(event->text, text);
        EXPECT_EQ(event->head.serial, state->serial);
    }
}

TEST_F(StreamWriterTest, EveryCapsHaveASerialOfTheirOwnThatTheirPacketsBear) {
    StreamReader reader(Options(name_.Name(), 1, true));
    std::vector<std::uint32_t> serials;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(Tell(ControlKind::Caps, "a/b"));
        serials.push_back(Stored()->serial);
        ASSERT_EQ(NumberedPacket(i).SendBy(writer_), WriteOutcome::Written);
    }
    EXPECT_EQ(serials[1], serials[0] + 1);
    EXPECT_EQ(serials[2], serials[0] + 2);
    for (int i = 0; i < 3; ++i) {
        const auto match = reader.TakeControl(reader.TryNext()->packet);
        ASSERT_TRUE(match.details);
        EXPECT_EQ(match.details->serial, serials[static_cast<std::size_t>(i)]);
    }
}

TEST_F(StreamWriterTest, StateIsRepeatedAheadOfAKeyFrameAndOfTheEnd) {
    ASSERT_TRUE(Tell(ControlKind::Caps, "a/b"));
    ASSERT_TRUE(Tell(ControlKind::GlobalTags, "some tags"));
    StreamReader reader(Options(name_.Name(), 1, true));
    NumberedPacket delta(1);
    NumberedPacket key(2);
    key.Get().packet.header.key = true;
    StreamWriter::Outgoing end;
    end.packet = MakeEndOfStream();
    end.critical = true;
    end.head = MakeFrameHead(end.packet, 0);
    ASSERT_EQ(delta.SendBy(writer_), WriteOutcome::Written);
    ASSERT_EQ(key.SendBy(writer_), WriteOutcome::Written);
    ASSERT_EQ(writer_.TryWrite(end), WriteOutcome::Written);
    for (const bool hasState : {false, true, true}) {
        const auto match = reader.TakeControl(reader.TryNext()->packet);
        ASSERT_TRUE(match.details);
        const bool isState =
            !match.events.empty() && match.events.back().head.kind == ControlKind::State;
        ASSERT_EQ(isState, hasState);
        if (hasState) {
            EXPECT_EQ(match.events.back().text, ToText(*Stored()));
            EXPECT_EQ(match.events.back().head.serial, Stored()->serial);
        }
    }
    EXPECT_EQ(Stored()->globalTags, "some tags");
}

TEST_F(StreamWriterTest, WithoutCapsThereIsNoStateToRepeat) {
    StreamReader reader(Options(name_.Name(), 1, true));
    NumberedPacket key(2);
    key.Get().packet.header.key = true;
    ASSERT_EQ(key.SendBy(writer_), WriteOutcome::Written);
    EXPECT_TRUE(reader.TakeControl(reader.TryNext()->packet).events.empty());
}

TEST_F(StreamWriterTest, GapsAndCustomEventsAreNotKeptForLateReaders) {
    ASSERT_TRUE(Tell(ControlKind::Caps, "a/b"));
    EXPECT_TRUE(Tell(ControlKind::Gap, ""));
    EXPECT_TRUE(Tell(ControlKind::Custom, "event"));
    const auto state = Stored();
    ASSERT_TRUE(state);
    EXPECT_EQ(ToText(*state), "serial " + std::to_string(state->serial) + "\ncaps a/b\n");
}

TEST_F(StreamWriterTest, TooMuchForTheBlockIsSaidAndDoesNotHideLaterCaps) {
    ASSERT_TRUE(Tell(ControlKind::Caps, "a/b"));
    EXPECT_FALSE(Tell(ControlKind::Tags, std::string(2000000, 'x')));
    EXPECT_EQ(Stored()->caps, "a/b");
    EXPECT_TRUE(Tell(ControlKind::Caps, "c/d"));
    EXPECT_EQ(Stored()->caps, "c/d");
    EXPECT_EQ(Stored()->tags, "");
    EXPECT_EQ(writer_.ControlDropped(), 1U) << "nor can the control ring take it";
}

TEST_F(StreamWriterTest, FullRingIsToldByStopped) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(NumberedPacket(i, 30000).SendBy(writer_), WriteOutcome::Written);
    }
    NumberedPacket fourth(3, 30000);
    EXPECT_EQ(fourth.SendBy(writer_), WriteOutcome::Stopped);
    EXPECT_EQ(writer_.TryWrite(fourth.Get()), WriteOutcome::Stopped);
    StreamReader reader(Options(name_.Name(), 1, true));
    EXPECT_TRUE(reader.HandOn(reader.TryNext()->ticket));
    WriteOutcome outcome = writer_.TryWrite(fourth.Get());
    if (outcome == WriteOutcome::Stopped) {  // that was the filler
        EXPECT_TRUE(reader.HandOn(reader.TryNext()->ticket));
        outcome = writer_.TryWrite(fourth.Get());
    }
    EXPECT_EQ(outcome, WriteOutcome::Written);
}

TEST_F(StreamWriterTest, RecordGoesOutOnceHoweverOftenThePacketIsTried) {
    StreamReader reader(Options(name_.Name(), 1, true));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(NumberedPacket(i, 30000).SendBy(writer_), WriteOutcome::Written);
    }
    NumberedPacket fourth(3, 30000);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(writer_.TryWrite(fourth.Get()), WriteOutcome::Stopped);
    }
    const auto control =
        OpenRing({StreamNames(name_.Name()).control, ControlRingSize(100000), 1, true, 0});
    int records = 0;
    while (control->ReadNextPacket().status == SMStatusCode::SUCCESS) {
        ++records;
    }
    EXPECT_EQ(records, 4);
}

TEST_F(StreamWriterTest, CriticalPacketUsesTheReserve) {
    const std::uint64_t free = 200;
    NumberedPacket large(0, 100000 - 26 - free);
    ASSERT_EQ(large.SendBy(writer_), WriteOutcome::Written);
    NumberedPacket small(1, free - 26 - 26);
    EXPECT_EQ(small.SendBy(writer_), WriteOutcome::Stopped);
    small.Get().critical = true;
    EXPECT_EQ(writer_.TryWrite(small.Get()), WriteOutcome::Written);
}

TEST_F(StreamWriterTest, PacketInPiecesIsOne) {
    StreamReader reader(Options(name_.Name(), 1, true));
    std::string a = "abc";
    std::string b = "defgh";
    StreamWriter::Outgoing outgoing;
    outgoing.packet.header.pts = 5;
    for (std::string* const part : {&a, &b}) {
        outgoing.spans.emplace_back(reinterpret_cast<unsigned char*>(part->data()), part->size());
    }
    outgoing.head = MakeFrameHead(outgoing.packet, 8);
    ASSERT_EQ(writer_.TryWrite(outgoing), WriteOutcome::Written);
    const auto received = reader.TryNext();
    ASSERT_TRUE(received);
    EXPECT_EQ(std::string(received->packet.data.begin(), received->packet.data.end()), "abcdefgh");
    EXPECT_TRUE(reader.TakeControl(received->packet).details);
}

TEST_F(StreamWriterTest, PayloadThatIsMadeInPlaceIsMadeOnceThereIsRoom) {
    StreamReader reader(Options(name_.Name(), 1, true));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(NumberedPacket(i, 30000).SendBy(writer_), WriteOutcome::Written);
    }
    int calls = 0;
    StreamWriter::Outgoing outgoing;
    outgoing.packet.header.pts = 5;
    outgoing.size = 30000;
    outgoing.fill = [&calls](const ByteSpan& room) {
        std::fill(room.begin(), room.end(), static_cast<unsigned char>(++calls));
    };
    outgoing.head = MakeFrameHead(outgoing.packet, outgoing.size);
    EXPECT_EQ(writer_.TryWrite(outgoing), WriteOutcome::Stopped);
    EXPECT_EQ(calls, 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(reader.HandOn(reader.TryNext()->ticket));
    }
    EXPECT_EQ(writer_.TryWrite(outgoing), WriteOutcome::Written);
    EXPECT_EQ(calls, 1);
    const auto received = reader.TryNext();
    ASSERT_TRUE(received);
    const std::int64_t pts = received->packet.header.pts;
    EXPECT_EQ(pts, 5);
    EXPECT_EQ(std::vector<int>(received->packet.data.begin(), received->packet.data.end()),
              std::vector<int>(30000, 1));
    EXPECT_TRUE(reader.TakeControl(received->packet).details);
}

TEST_F(StreamWriterTest, PayloadThatIsMadeInPlaceAndCanNeverFitIsSaid) {
    StreamWriter::Outgoing outgoing;
    outgoing.size = writer_.LargestPacket() + 1;
    outgoing.fill = [](const ByteSpan&) { ADD_FAILURE() << "there is no room"; };
    EXPECT_EQ(writer_.TryWrite(outgoing), WriteOutcome::NeverFits);
}

TEST_F(StreamWriterTest, LargestPacketFitsAndOneByteMoreNeverDoes) {
    EXPECT_EQ(writer_.LargestPacket(), 100000U - 26 - 130);
    EXPECT_EQ(NumberedPacket(0, writer_.LargestPacket() + 1).SendBy(writer_),
              WriteOutcome::NeverFits);
    EXPECT_EQ(NumberedPacket(0, writer_.LargestPacket()).SendBy(writer_), WriteOutcome::Written);
}

TEST_F(StreamWriterTest, FullControlRingDoesNotHoldUpTheStream) {
    constexpr int kCount = 1700;  // of 170 bytes each, in 262144
    {
        const auto ring = OpenRing({name_.Name(), 100000, 1, true, 0});  // a reader of packets only
        for (int i = 0; i < kCount; ++i) {
            ASSERT_EQ(NumberedPacket(i).SendWaitingBy(writer_), WriteOutcome::Written) << i;
            const ReadNextPacketResult read = ring->ReadNextPacket();
            ASSERT_EQ(read.status, SMStatusCode::SUCCESS) << i;
            ASSERT_EQ(ring->ReleasePacket(read.packet), SMStatusCode::SUCCESS);
        }
    }
    const std::uint64_t dropped = writer_.ControlDropped();
    EXPECT_EQ(dropped, kCount - (262144 - 130) / 170);

    StreamReader reader(Options(name_.Name(), 1, true));
    EXPECT_FALSE(reader.TakeControl(MakeEndOfStream()).details) << "all records are read";
    ASSERT_EQ(NumberedPacket(7).SendBy(writer_), WriteOutcome::Written);
    EXPECT_EQ(writer_.ControlDropped(), dropped) << "there is room again";
    EXPECT_TRUE(reader.TakeControl(reader.TryNext()->packet).details);
}

TEST_F(StreamWriterTest, WakesTheFirstReader) {
    const StreamReader reader(Options(name_.Name(), 1, true));
    const SystemSemaphore woken(StreamNames(name_.Name()).WakeUp(1),
                                SystemSemaphore::IfMissing::Refuse);
    while (woken.TryTake()) {
    }
    NumberedPacket packet(1);
    EXPECT_EQ(woken.Value(), 0) << "there is nothing to read yet";
    ASSERT_EQ(writer_.TryWrite(packet.Get()), WriteOutcome::Written);
    EXPECT_EQ(woken.Value(), 1);
    EXPECT_TRUE(woken.TryTake());
    (void)Tell(ControlKind::Custom, "event");
    EXPECT_EQ(woken.Value(), 1);
}

TEST_F(StreamWriterTest, WakeEndsAWait) {
    while (WakeUps(name_.Name(), 0) > 0) {
        writer_.Wait();
    }
    writer_.Wake();
    EXPECT_EQ(WakeUps(name_.Name(), 0), 1);
    writer_.Wait();
    EXPECT_EQ(WakeUps(name_.Name(), 0), 0);
}

}  // namespace
}  // namespace qel::test
