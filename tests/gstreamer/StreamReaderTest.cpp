#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <thread>

#include "ChildProcess.h"
#include "OpenRing.h"
#include "StreamName.h"
#include "StreamNodes.h"
#include "StreamReader.h"
#include "Thrown.h"

namespace qel::test {
namespace {

class StreamReaderTest : public testing::Test {
protected:
    void Send(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(NumberedPacket(sent_++).SendBy(writer_), WriteOutcome::Written);
        }
    }

    UniqueStreamName name_;
    StreamWriter writer_{Options(name_.Name(), 0, false)};
    std::int64_t sent_ = 0;
};

TEST_F(StreamReaderTest, SecondOneOfANodeIsRefused) {
    const std::string taken =
        "ring " + name_.Name() + ": node 1 is taken by another process or element";
    const auto open = [this] { const StreamReader second(Options(name_.Name(), 1, true)); };
    {
        const StreamReader reader(Options(name_.Name(), 1, true));
        EXPECT_EQ(Thrown<NodeTaken>(open), taken);
    }
    EXPECT_EQ(Thrown<NodeTaken>(open), "nothing thrown");
}

TEST_F(StreamReaderTest, RefusedOneHandsNothingOn) {
    StreamReader reader(Options(name_.Name(), 1, true));
    Send(2);
    ASSERT_EQ(NextPts(reader), 0);
    const auto held = reader.GetOutstanding().packets;
    (void)Thrown<NodeTaken>([this] { const StreamReader second(Options(name_.Name(), 1, true)); });
    EXPECT_EQ(reader.GetOutstanding().packets, held);
    const auto next = reader.TryNext();
    ASSERT_TRUE(next);
    EXPECT_TRUE(reader.HandOn(0));
    EXPECT_TRUE(reader.HandOn(next->ticket)) << "the counters are sound";
}

TEST_F(StreamReaderTest, FindsPacketsAndTheirRecords) {
    StreamReader reader(Options(name_.Name(), 1, true));
    EXPECT_FALSE(reader.TryNext());
    writer_.Tell(ControlKind::Custom, "event", MakeEventHead(ControlKind::Custom));
    Send(1);
    const auto received = reader.TryNext();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->outcome, ReadOutcome::Packet);
    const auto match = reader.TakeControl(received->packet);
    ASSERT_TRUE(match.details);
    EXPECT_EQ(match.details->control.dataSize, 10U);
    ASSERT_EQ(match.events.size(), 1U);
    EXPECT_EQ(match.events[0].text, "event");
    EXPECT_FALSE(reader.TakeEvent());
    writer_.Tell(ControlKind::Custom, "last", MakeEventHead(ControlKind::Custom));
    const auto event = reader.TakeEvent();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->text, "last");
}

TEST_F(StreamReaderTest, PacketsGivenBackInAnyOrderByManyThreadsGoOnInOrder) {
    constexpr int kCount = 40;
    StreamReader reader(Options(name_.Name(), 1, false));
    StreamReader next(Options(name_.Name(), 2, true));
    Send(kCount);
    std::vector<InOrderRelease::Ticket> tickets;
    for (int i = 0; i < kCount; ++i) {
        tickets.push_back(reader.TryNext()->ticket);
    }
    EXPECT_EQ(reader.GetOutstanding().packets, 40U);
    EXPECT_EQ(reader.GetOutstanding().bytes, 40U * 36U);

    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (std::size_t i = tickets.size() - 1 - thread; i >= 1 && i < tickets.size();
                 i -= 4) {
                EXPECT_TRUE(reader.HandOn(tickets[i]));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(NextPts(next), -100) << "the oldest holds all behind it";
    EXPECT_EQ(reader.GetOutstanding().packets, 40U);

    EXPECT_TRUE(reader.HandOn(tickets[0]));
    EXPECT_EQ(reader.GetOutstanding().packets, 0U);
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(NextPts(next), i);
    }
    EXPECT_EQ(NextPts(next), -100);
}

TEST_F(StreamReaderTest, HandsOnWhatAKilledPredecessorHadRead) {
    const UniqueStreamName name;
    ChildProcess victim([&](const Conversation& parent) {
        (void)parent.Hear();
        StreamReader reader(Options(name.Name(), 1, false));
        const std::int64_t last = std::max({NextPts(reader), NextPts(reader), NextPts(reader)});
        parent.Say(std::to_string(last));
        (void)parent.Hear();
        return 0;
    });
    StreamWriter writer(Options(name.Name(), 0, false));
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(NumberedPacket(i).SendBy(writer), WriteOutcome::Written);
    }
    StreamReader next(Options(name.Name(), 2, true));
    victim.Say("go");
    ASSERT_EQ(victim.Hear(), "2");
    EXPECT_EQ(NextPts(next), -100);
    victim.Kill();
    ASSERT_EQ(victim.ExitCode(), -1);

    StreamReader successor(Options(name.Name(), 1, false));
    EXPECT_EQ(successor.Recovered(), 3U);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(NextPts(next), i);
    }
    EXPECT_EQ(NextPts(next), -100);
    EXPECT_EQ(NextPts(successor), 3);
    EXPECT_EQ(successor.Options().node, 1);
}

TEST_F(StreamReaderTest, HandsOnRecordsThatAPredecessorHadRead) {
    writer_.Tell(ControlKind::Custom, "event", MakeEventHead(ControlKind::Custom));
    const std::uint64_t size = ControlRingSize(100000);
    const std::string control = StreamNames(name_.Name()).control;
    ASSERT_EQ(OpenRing({control, size, 1, false, 0})->ReadNextPacket().status,
              SMStatusCode::SUCCESS);
    const StreamReader reader(Options(name_.Name(), 1, false));
    StreamReader next(Options(name_.Name(), 2, true));
    const auto event = next.TakeEvent();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->text, "event");
}

TEST_F(StreamReaderTest, FirstReaderRecoversNothing) {
    Send(3);
    const StreamReader reader(Options(name_.Name(), 1, true));
    EXPECT_EQ(reader.Recovered(), 0U);
}

TEST_F(StreamReaderTest, WakesTheNodeThatItHandsOnTo) {
    StreamReader reader(Options(name_.Name(), 1, false));
    const StreamReader sink(Options(name_.Name(), 2, true));
    const SystemSemaphore woken(StreamNames(name_.Name()).WakeUp(2),
                                SystemSemaphore::IfMissing::Refuse);
    while (woken.TryTake()) {
    }
    Send(2);
    const auto first = reader.TryNext();
    const auto second = reader.TryNext();
    EXPECT_EQ(woken.Value(), 0);
    EXPECT_TRUE(reader.HandOn(first->ticket));
    EXPECT_EQ(woken.Value(), 1);
    EXPECT_TRUE(reader.HandOn(second->ticket));
    EXPECT_EQ(woken.Value(), 1) << "more than one unit is of no use";
}

TEST_F(StreamReaderTest, SinkWakesTheWriter) {
    StreamReader sink(Options(name_.Name(), 1, true));
    while (WakeUps(name_.Name(), 0) > 0) {
        writer_.Wait();
    }
    Send(1);
    EXPECT_TRUE(sink.HandOn(sink.TryNext()->ticket));
    EXPECT_EQ(WakeUps(name_.Name(), 0), 1);
}

TEST_F(StreamReaderTest, EventsThatGoOnWakeTheNextNode) {
    StreamReader sink(Options(name_.Name(), 1, true));
    while (WakeUps(name_.Name(), 0) > 0) {
        writer_.Wait();
    }
    writer_.Tell(ControlKind::Custom, "event", MakeEventHead(ControlKind::Custom));
    EXPECT_TRUE(sink.TakeEvent());
    EXPECT_EQ(WakeUps(name_.Name(), 0), 1);
}

TEST_F(StreamReaderTest, WakeEndsAWait) {
    StreamReader reader(Options(name_.Name(), 1, true));
    while (WakeUps(name_.Name(), 1) > 0) {
        reader.Wait();
    }
    reader.Wake();
    EXPECT_EQ(WakeUps(name_.Name(), 1), 1);
    reader.Wait();
    EXPECT_EQ(WakeUps(name_.Name(), 1), 0) << "taken by the wait";
}

TEST_F(StreamReaderTest, WaitEndsWithoutAPost) {
    StreamReader reader(Options(name_.Name(), 1, true));
    StreamOptions spinning = Options(name_.Name(), 2, true);
    spinning.wakeUp = WakeUp::Spin;
    StreamReader spinner(spinning);
    for (int i = 0; i < 3; ++i) {
        reader.Wait();
        spinner.Wait();
    }
    EXPECT_EQ(WakeUps(name_.Name(), 1), 0);
}

/// What the race detector has to find sound: one thread reads round the ring while another gives
/// back and looks at the figures.
TEST_F(StreamReaderTest, OneThreadReadsWhileAnotherGivesBackAndLooks) {
    constexpr std::int64_t kCount = 400;
    constexpr std::int64_t kNone = -1;
    StreamReader reader(Options(name_.Name(), 1, true));
    std::atomic<std::int64_t> handed{kNone};
    std::atomic<bool> isDone{false};
    std::thread giver([&] {
        while (!isDone || handed != kNone) {
            if (const std::int64_t ticket = handed.exchange(kNone); ticket != kNone) {
                EXPECT_TRUE(reader.HandOn(static_cast<InOrderRelease::Ticket>(ticket)));
            }
            EXPECT_LE(reader.Fillers(), static_cast<std::uint64_t>(kCount));
        }
    });
    for (std::int64_t i = 0; i < kCount; ++i) {
        EXPECT_EQ(NumberedPacket(i, 7000).SendWaitingBy(writer_), WriteOutcome::Written);
        const auto received = reader.TryNext();
        EXPECT_TRUE(received && received->packet.header.pts == i) << i;
        while (received && handed != kNone) {
            std::this_thread::yield();
        }
        if (received) {
            handed = static_cast<std::int64_t>(received->ticket);
        }
    }
    isDone = true;
    giver.join();
    EXPECT_GT(reader.Fillers(), 0U);
    EXPECT_EQ(reader.GetOutstanding().packets, 0U);
}

TEST_F(StreamReaderTest, CountsFillersAndDoesNotDeliverThem) {
    StreamReader reader(Options(name_.Name(), 1, true));
    for (int i = 0; i < 9; ++i) {
        ASSERT_EQ(NumberedPacket(i, 30000).SendBy(writer_), WriteOutcome::Written);
        const auto received = reader.TryNext();
        ASSERT_TRUE(received);
        EXPECT_EQ(received->packet.data.size(), 30000U);
        EXPECT_TRUE(reader.HandOn(received->ticket));
    }
    EXPECT_EQ(reader.Fillers(), 2U);  // three packets go into the ring's length
}

TEST_F(StreamReaderTest, IsBrokenOnceAPacketCannotBeGivenBack) {
    StreamReader reader(Options(name_.Name(), 1, true));
    Send(2);
    const auto received = reader.TryNext();
    ASSERT_TRUE(received);
    // A writer that claims all the space, and has handed it on as well.
    std::fstream file("/dev/shm/" + name_.Name() + ".shm",
                      std::ios::in | std::ios::out | std::ios::binary);
    const std::uint64_t all = 100000;
    file.write(reinterpret_cast<const char*>(&all), sizeof(all));
    file.close();
    EXPECT_FALSE(reader.HandOn(received->ticket));
    ASSERT_TRUE(reader.TryNext());
    EXPECT_EQ(reader.TryNext()->outcome, ReadOutcome::Broken);
}

}  // namespace
}  // namespace qel::test
