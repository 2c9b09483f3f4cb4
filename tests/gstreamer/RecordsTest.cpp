// Packets and records that do not come together: records lost, and records ahead of their packets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <mutex>

#include "ControlQueue.h"
#include "Elements.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "PacketWriter.h"
#include "StreamName.h"
#include "StreamNames.h"
#include "StreamNodes.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t kSize = 100000;

std::string Caps(int number) {
    return "test/x-frames, number=(int)" + std::to_string(number);
}

std::string NoteOfCaps(int number) {
    return "caps " + Caps(number);
}

std::string UnknownCapsIn(const UniqueStreamName& name) {
    return "ring " + name.Name() + ": the caps of what waits in it are not known any more";
}

/// A source that reads a packet, and none behind it as long as its pad is closed.
class LostRecords : public testing::Test {
protected:
    void Open(const Properties& properties = {}) {
        Properties all{{"sink", "true"}, {"start-at-key-frame", "false"}};
        all.insert(all.end(), properties.begin(), properties.end());
        source_ = std::make_unique<Source>(name_.Name(), all);
        GstPad* const pad = gst_element_get_static_pad(source_->Get(), "src");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, Pass, &gate_, nullptr);
        gst_object_unref(pad);
        source_->Play();
        SetCaps(1);
        SendAndClose(1);
    }
    static GstPadProbeReturn Pass(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer gate) {
        const std::lock_guard<std::mutex> lock(*static_cast<std::mutex*>(gate));
        return GST_PAD_PROBE_OK;
    }
    /// Sends a packet which the source gets, but not through its pad.
    void SendAndClose(std::int64_t pts) {
        closed_.lock();
        Send(pts);
        const std::string last = "buffer " + std::to_string(pts);
        for (auto history = source_->History(); history.empty() || history.back() != last;
             history = source_->History()) {
            ::sched_yield();
        }
    }
    void ExpectOnOpening(GstClockTime pts) {
        closed_.unlock();
        ExpectNext(pts);
    }
    void SetCaps(int number) {
        (void)writer_.Tell(ControlKind::Caps, Caps(number), MakeEventHead(ControlKind::Caps));
    }
    void Send(std::int64_t pts) {
        ASSERT_EQ(NumberedPacket(pts).SendBy(writer_), WriteOutcome::Written);
    }
    /// Sends a packet whose record finds no room.
    void SendUnrecorded(std::int64_t pts) {
        const std::uint64_t size = ControlRingSize(kSize);
        const auto control = OpenRing({StreamNames(name_.Name()).control, size, 0, false, 0});
        PacketWriter garbage(*control, size, WaitMode::Yield, [] { return true; });
        for (const std::size_t length : {20000U, 1U}) {
            while (garbage.Write(OwnedPacket(length).Get()) == WriteOutcome::Written) {
            }
        }
        const std::uint64_t dropped = writer_.ControlDropped();
        ASSERT_EQ(writer_.TryWrite(NumberedPacket(pts).Get(), false), WriteOutcome::Written);
        ASSERT_EQ(writer_.ControlDropped(), dropped + 1);
    }
    void ExpectNext(GstClockTime pts) { EXPECT_EQ(GST_BUFFER_PTS(source_->Pull().get()), pts); }
    void AwaitSkipped(std::uint64_t count) {
        while (source_->Figure("skipped") != count) {
            ::sched_yield();
        }
    }

    UniqueStreamName name_;
    StreamWriter writer_{Options(name_.Name(), 0, false, kSize)};
    std::mutex gate_;
    std::unique_ptr<Source> source_;
    std::unique_lock<std::mutex> closed_{gate_, std::defer_lock};  // opened ahead of the end
};

TEST_F(LostRecords, LeavePacketsToTheCapsThatHaveNotChangedSince) {
    Open();
    SendUnrecorded(2);
    ExpectOnOpening(1);
    ExpectNext(2);
    Send(3);
    ExpectNext(3);
    EXPECT_EQ(source_->Figure("skipped"), 0U);
    EXPECT_THAT(source_->History(),
                ElementsAre(NoteOfCaps(1), "segment", "buffer 1", "buffer 2", "buffer 3"));
}

TEST_F(LostRecords, KeepPacketsBackWhenTheCapsHaveChanged) {
    Open();
    SetCaps(2);
    SendUnrecorded(2);
    ExpectOnOpening(1);
    AwaitSkipped(1);
    Send(3);
    ExpectNext(3);
    EXPECT_EQ(source_->Figure("skipped"), 1U);
    EXPECT_THAT(source_->History(),
                ElementsAre(NoteOfCaps(1), "segment", "buffer 1", NoteOfCaps(2), "buffer 3"));
}

TEST_F(LostRecords, LeavePacketsToTheCapsThatTheUserSetsEachTime) {
    Open({{"caps", Caps(7)}});
    SetCaps(2);
    SendUnrecorded(2);
    ExpectOnOpening(1);
    ExpectNext(2);
    SendAndClose(3);
    SetCaps(3);
    SendUnrecorded(4);
    ExpectOnOpening(3);
    ExpectNext(4);
    Send(5);
    ExpectNext(5);
    EXPECT_EQ(source_->Figure("skipped"), 0U);
    EXPECT_THAT(
        source_->History(),
        ElementsAre(NoteOfCaps(1), "segment", "buffer 1", NoteOfCaps(7), "buffer 2", NoteOfCaps(2),
                    "buffer 3", NoteOfCaps(7), "buffer 4", NoteOfCaps(3), "buffer 5"));
}

/// A writer that is no element, at a ring where one has ended its stream.
class PlainSuccessor : public testing::Test {
protected:
    void Open(const Properties& properties) {
        Properties all{{"sink", "true"}, {"ignore-eos", "true"}};
        all.insert(all.end(), properties.begin(), properties.end());
        source_ = std::make_unique<Source>(name_.Name(), all);
        {
            Sink sink(name_.Name(), {{"size", std::to_string(kSize)}});
            ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
            ASSERT_TRUE(sink.End());
        }
        EXPECT_EQ(GST_BUFFER_PTS(source_->Play().Pull().get()), 1U);
        const auto ring = OpenRing({name_.Name(), kSize, 0, false, 0});
        PacketWriter writer(*ring, kSize);
        for (const std::int64_t pts : {2, 3}) {
            const OwnedPacket owned(5, pts);
            Packet packet = owned.Get();
            packet.header.key = true;
            ASSERT_EQ(writer.Write(packet), WriteOutcome::Written);
        }
    }

    UniqueStreamName name_;
    std::unique_ptr<Source> source_;
};

TEST_F(PlainSuccessor, ComesOutUnderTheCapsThatTheUserSets) {
    Open({{"caps", Caps(7)}});
    for (const GstClockTime pts : {2U, 3U}) {
        const BufferHandle buffer = source_->Pull();
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), pts);
        EXPECT_EQ(FlagsOf(buffer), pts == 2 ? guint{GST_BUFFER_FLAG_DISCONT} : 0U);
    }
    EXPECT_EQ(source_->TakeWarnings(), 0);
    EXPECT_THAT(source_->History(), ElementsAre(NoteOfCaps(1), "segment", "buffer 1", NoteOfCaps(7),
                                                "buffer 2", "buffer 3"));
}

TEST_F(PlainSuccessor, DoesNotComeOutUnderTheElementsCaps) {
    Open({});
    const Element::Error warning = source_->AwaitWarning();
    EXPECT_EQ(warning.code, StreamError(GST_STREAM_ERROR_FORMAT));
    EXPECT_EQ(warning.text, UnknownCapsIn(name_));
    while (source_->Figure("skipped") != 2) {
        ::sched_yield();
    }
    EXPECT_EQ(source_->TakeWarnings(), 0) << "one was enough";
    EXPECT_EQ(source_->Delivered(), 1U);
}

/// A source that has read the record of a packet for which there is no room yet.
class ReadAhead : public testing::TestWithParam<bool> {
protected:
    /// Hands all on that node 2 has got, and counts the records.
    void TakeByLast() {
        while (const auto received = last_.TryNext()) {
            ASSERT_TRUE(last_.HandOn(received->ticket));
        }
        (void)last_.FindState(0);
        records_ += last_.TakeRecords().size();
    }

    UniqueStreamName name_;
    StreamWriter writer_{Options(name_.Name(), 0, false, kSize)};
    StreamReader last_{Options(name_.Name(), 2, true, kSize)};
    std::size_t records_ = 0;
};

TEST_P(ReadAhead, RecordIsKeptWhenTheSourceStopsAndStarts) {
    Source source(name_.Name(), {{"start-at-key-frame", "false"}});
    (void)writer_.Tell(ControlKind::Caps, Caps(1), MakeEventHead(ControlKind::Caps));
    for (int pts = 0; pts < 3; ++pts) {
        ASSERT_EQ(NumberedPacket(pts, 30000).SendBy(writer_), WriteOutcome::Written);
    }
    std::vector<BufferHandle> held;
    source.Play();
    for (int i = 0; i < 3; ++i) {
        held.push_back(source.Pull());
    }
    (void)writer_.Tell(ControlKind::Caps, Caps(2), MakeEventHead(ControlKind::Caps));
    NumberedPacket waiting(3, 30000);
    waiting.Get().head.dts = 77;
    ASSERT_EQ(writer_.TryWrite(waiting.Get()), WriteOutcome::Stopped);
    while (records_ < 6) {  // two of caps, and four of packets
        TakeByLast();
    }

    ASSERT_TRUE(source.SetState(GST_STATE_NULL));
    const bool isHeldOver = GetParam();
    if (!isHeldOver) {
        held.clear();  // and with them what the element had opened
    }
    ASSERT_TRUE(source.SetState(GST_STATE_PLAYING));
    held.clear();
    while (writer_.TryWrite(waiting.Get()) != WriteOutcome::Written) {
        TakeByLast();
    }
    const BufferHandle buffer = source.Pull();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), 3U);
    EXPECT_EQ(GST_BUFFER_DTS(buffer.get()), 77U);
    EXPECT_EQ(source.History().back(), "buffer 3");
    const std::vector<std::string> history = source.History();
    EXPECT_THAT(std::vector<std::string>(history.end() - 3, history.end()),
                ElementsAre(NoteOfCaps(2), "segment", "buffer 3"));
}

INSTANTIATE_TEST_SUITE_P(Buffers, ReadAhead, testing::Bool(), [](const auto& row) {
    return std::string(row.param ? "HeldOver" : "GivenBack");
});

}  // namespace
}  // namespace qel::test
