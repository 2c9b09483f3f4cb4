#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <ostream>
#include <random>
#include <thread>

#include "ChildProcess.h"
#include "EndOfStream.h"
#include "InPlaceWriter.h"
#include "LongForm.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "PacketWriter.h"
#include "PayloadAlignment.h"
#include "RingTap.h"
#include "TellingPackets.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

enum class TapSpeed { Full, Slow, Halting };

/// How packets get into the ring.
enum class Way {
    Copied,
    InPlace,         ///< no more is reserved than a header above what a packet takes
    InPlaceOfLarger  ///< more is; by that a short lap may escape a tap
};

struct Race {
    const char* name;
    std::uint64_t size;
    std::uint64_t smallest;
    std::uint64_t largest;
    TellingPackets::Times times;
    bool aligned;   ///< the writer puts padding between the packets
    unsigned held;  ///< packets that the sink keeps
    TapSpeed speed;
    Way way = Way::Copied;
};

void PrintTo(const Race& race, std::ostream* out) {
    *out << race.name;
}

/// Writes packets into room that is a little larger, and fills all of it.
class WriterInPlace {
public:
    WriterInPlace(SharedPacketBufferIF& ring, PacketWriter& writer, Way way)
        : writer_(writer), inPlace_(ring), way_(way) {}

    [[nodiscard]] bool Write(const Packet& packet) {
        const std::size_t more = random_() % (way_ == Way::InPlace ? kPacketHeaderSize + 1 : 200);
        ByteSpan room;
        if (writer_.Reserve(inPlace_, packet.data.size() + more, room) != WriteOutcome::Written) {
            return false;
        }
        std::fill(room.begin(), room.end(), static_cast<unsigned char>(random_()));
        std::copy(packet.data.begin(), packet.data.end(), room.begin());
        return inPlace_.Commit(packet.header, packet.data.size()) == SMStatusCode::SUCCESS;
    }

private:
    PacketWriter& writer_;
    InPlaceWriter inPlace_;
    Way way_;
    std::minstd_rand random_{11};
};

/// Node 0, as fast as it goes.
int WriteAll(const Race& race, const std::string& name, std::uint64_t count) {
    const auto ring = OpenRing({name, race.size, 0, false, 0});
    PacketWriter writer(*ring, race.size);
    WriterInPlace inPlace(*ring, writer, race.way);
    TellingPackets packets(race.smallest, race.largest, race.times);
    const std::vector<unsigned char> zeros(race.size);
    for (std::uint64_t number = 0; number < count; ++number) {
        const Packet packet = packets.Make(number);
        while (race.aligned) {
            const auto padding =
                PaddingAhead(WriteIndexOf(*ring, 0), packet.data.size(), race.size);
            if (!padding) {
                break;
            }
            Packet filler;
            filler.header.ignoreData = true;
            filler.data = {const_cast<unsigned char*>(zeros.data()), *padding};
            if (writer.WriteCritical(filler) != WriteOutcome::Written) {
                return 1;
            }
        }
        const bool isWritten = race.way == Way::Copied
                                   ? writer.Write(packet) == WriteOutcome::Written
                                   : inPlace.Write(packet);
        if (!isWritten) {
            return 1;
        }
    }
    return writer.WriteCritical(MakeEndOfStream()) == WriteOutcome::Written ? 0 : 1;
}

/// The sink, which keeps some packets.
int ReadAll(const Race& race, const std::string& name) {
    const auto ring = OpenRing({name, race.size, 1, true, 0});
    PacketReader reader(*ring);
    std::vector<InOrderRelease::Ticket> held;
    while (true) {
        const ReceivedPacket received = reader.Next();
        if (received.outcome == ReadOutcome::Broken || received.outcome == ReadOutcome::Stopped) {
            return 1;
        }
        held.push_back(received.ticket);
        if (held.size() > race.held || received.outcome == ReadOutcome::EndOfStream) {
            for (const auto ticket : held) {
                (void)reader.Release(ticket);
            }
            held.clear();
        }
        if (received.outcome == ReadOutcome::EndOfStream) {
            return 0;
        }
    }
}

class LookAway {
public:
    explicit LookAway(TapSpeed speed) : speed_(speed) {}

    void operator()() {
        if (speed_ == TapSpeed::Slow && random_() % 8 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(random_() % 200));
        }
        if (speed_ == TapSpeed::Halting && random_() % 300 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(random_() % 2000));
        }
    }

private:
    TapSpeed speed_;
    std::minstd_rand random_{7};
};

struct Seen {
    std::uint64_t packets = 0;
    std::uint64_t overruns = 0;
    std::uint64_t torn = 0;    ///< packets that are none of the writer's
    std::uint64_t unsaid = 0;  ///< gaps that no overrun explains
    std::uint64_t backward = 0;
    std::uint64_t firstFault = 0;  ///< the number expected then
};

/// Follows the ring until its end mark, or until nothing comes and the writer has gone.
Seen Tap(RingTap& tap, const Race& race, const std::function<bool()>& isOver) {
    TellingPackets packets(race.smallest, race.largest, race.times);
    LookAway lookAway(race.speed);
    Seen seen;
    std::uint64_t next = 0;
    bool mayMiss = false;
    while (true) {
        const bool wasOver = isOver();
        const TapResult result = tap.TryNext();
        if (result.outcome == TapOutcome::Nothing) {
            if (wasOver) {
                return seen;
            }
            (void)sched_yield();
            continue;
        }
        if (result.outcome == TapOutcome::Overrun) {
            ++seen.overruns;
            mayMiss = true;
            continue;
        }
        if (IsEndOfStream({result.header, result.payload})) {
            return seen;
        }
        ++seen.packets;
        const auto number = packets.NumberOf(result.header, result.payload);
        const bool isFault = !number || *number < next || (*number > next && !mayMiss);
        if (isFault && seen.torn + seen.unsaid + seen.backward == 0) {
            seen.firstFault = next;
        }
        if (!number) {
            ++seen.torn;
            continue;
        }
        seen.unsaid += *number > next && !mayMiss ? 1 : 0;
        seen.backward += *number < next ? 1 : 0;
        next = *number + 1;
        mayMiss = false;
        lookAway();
    }
}

class RingTapRace : public testing::TestWithParam<Race> {};

TEST_P(RingTapRace, EveryPacketIsIntactAndNoneIsMissedUnsaid) {
    const Race& race = GetParam();
    const UniqueRingName name;
    const std::uint64_t bytes = (IsLongForm() ? 8ULL << 30U : 8ULL << 20U);
    const std::uint64_t most = IsLongForm() ? ~0ULL : 4000;
    const std::uint64_t count =
        std::min(bytes / (200 + (race.smallest + race.largest) / 2) / 4, most);
    const auto maker = OpenRing({name.Name(), race.size, 0, false, 0});
    auto ring = RingFile::Open(name.Name());
    ASSERT_TRUE(ring);
    RingTap tap(std::move(*ring), RingTap::Start::Now);
    EXPECT_EQ(tap.TryNext().outcome, TapOutcome::Nothing);

    ChildProcess writer([&](const Conversation&) { return WriteAll(race, name.Name(), count); });
    ChildProcess reader([&](const Conversation&) { return ReadAll(race, name.Name()); });
    const auto isOver = [&] {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(writer.Pid()), &info, WEXITED | WNOWAIT | WNOHANG) ==
                   0 &&
               info.si_pid == writer.Pid();
    };
    const Seen seen = Tap(tap, race, isOver);
    EXPECT_EQ(seen.torn, 0U) << "from " << seen.firstFault;
    const bool mayEscape = race.way == Way::InPlaceOfLarger;
    if (!mayEscape) {
        EXPECT_EQ(seen.unsaid, 0U) << "from " << seen.firstFault;
    }
    EXPECT_EQ(seen.backward, 0U) << "from " << seen.firstFault;
    EXPECT_EQ(writer.ExitCode(), 0);
    EXPECT_EQ(reader.ExitCode(), 0);
    if (seen.overruns == 0 && !mayEscape) {
        EXPECT_EQ(seen.packets, count);
    }
    RecordProperty("packets", std::to_string(seen.packets));
    RecordProperty("overruns", std::to_string(seen.overruns));
    if (IsLongForm()) {
        std::fprintf(stderr, "%s: %llu of %llu packets, %llu overruns\n", race.name,
                     static_cast<unsigned long long>(seen.packets),
                     static_cast<unsigned long long>(count),
                     static_cast<unsigned long long>(seen.overruns));
    }
}

using Times = TellingPackets::Times;
INSTANTIATE_TEST_SUITE_P(
    Rings, RingTapRace,
    testing::Values(
        Race{"TinyRing", 1000, 8, 200, Times::Each, false, 0, TapSpeed::Full},
        Race{"TinyRingLargePackets", 1000, 8, 800, Times::Each, false, 0, TapSpeed::Full},
        Race{"TinyRingSlowTap", 1000, 8, 200, Times::Each, false, 0, TapSpeed::Slow},
        Race{"AllPacketsAlike", 4096, 100, 100, Times::Each, false, 0, TapSpeed::Slow},
        Race{"PayloadsTellAlone", 4096, 8, 600, Times::None, false, 0, TapSpeed::Slow},
        Race{"PacketsThatShareTimes", 4096, 100, 100, Times::Shared, false, 0, TapSpeed::Slow},
        Race{"OnePacketALap", 2000, 900, 1800, Times::Each, false, 0, TapSpeed::Full},
        Race{"Padded", 4096, 8, 300, Times::Each, true, 0, TapSpeed::Slow},
        Race{"SinkThatHolds", 8192, 8, 300, Times::Each, false, 9, TapSpeed::Full},
        Race{"LargerRing", 1 << 20, 8, 9000, Times::Each, false, 0, TapSpeed::Full},
        Race{"TapThatHalts", 1 << 20, 300, 300, Times::Each, false, 0, TapSpeed::Halting},
        Race{"TapThatHaltsAndSinkThatHolds", 1 << 18, 8, 3000, Times::Each, false, 3,
             TapSpeed::Halting},
        Race{"InPlace", 4096, 8, 300, Times::Each, false, 0, TapSpeed::Full, Way::InPlace},
        Race{"InPlaceSlowTap", 4096, 8, 900, Times::Each, false, 0, TapSpeed::Slow, Way::InPlace},
        Race{"InPlaceWhosePayloadsTellAlone", 4096, 8, 600, Times::None, false, 0, TapSpeed::Slow,
             Way::InPlace},
        Race{"InPlaceLargePackets", 2000, 900, 1700, Times::Each, false, 0, TapSpeed::Full,
             Way::InPlace},
        Race{"InPlaceOfLargerRoom", 4096, 8, 700, Times::Each, false, 0, TapSpeed::Slow,
             Way::InPlaceOfLarger},
        Race{"InPlaceLargerRing", 1 << 20, 8, 9000, Times::Each, false, 0, TapSpeed::Halting,
             Way::InPlace}),
    [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace qel::test
