#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "RingUnderTest.h"
#include "RingWatcher.h"

namespace qel::test {
namespace {

std::optional<RingTotal> Total(const RingTotals& totals, const UniqueRingName& name) {
    struct stat status {};
    return stat(name.Path().c_str(), &status) == 0 ? totals.Of(name.Name(), status) : std::nullopt;
}

class RingWatching : public testing::Test {
protected:
    /// Measures while `work` is done, which takes as long as it takes.
    void While(const std::function<void()>& work) {
        bool isDone = false;
        watcher_.WatchUntil(RingMeter::Clock::now() + std::chrono::hours(1), [&] {
            if (!isDone) {
                work();
            }
            return std::exchange(isDone, true);
        });
    }

    void WatchNothing() {
        watcher_.WatchUntil(RingMeter::Clock::now(), [] { return false; });
    }

    /// So large that nobody goes round it unseen, however late the watcher is.
    static constexpr std::uint64_t kSize = 64U << 20U;

    void Open() {
        reader_ = OpenRing({name_.Name(), kSize, 1, true, 0});
        writer_ = OpenRing({name_.Name(), kSize, 0, false, 0});
    }

    void Move(unsigned packets) {
        std::vector<unsigned char> content(74);
        for (unsigned i = 0; i < packets; ++i) {
            Packet packet;
            packet.data = content;
            EXPECT_EQ(writer_->WritePacket(packet), SMStatusCode::SUCCESS);
            const auto next = reader_->ReadNextPacket();
            EXPECT_EQ(next.status, SMStatusCode::SUCCESS);
            EXPECT_EQ(reader_->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
    }

    /// What was measured of the ring as it stands there now.
    [[nodiscard]] std::optional<RingTotal> Now() const { return Total(*totals_, name_); }

    UniqueRingName name_;
    std::unique_ptr<SharedPacketBufferIF> reader_;
    std::unique_ptr<SharedPacketBufferIF> writer_;
    std::shared_ptr<RingTotals> totals_ = std::make_shared<RingTotals>(RingTotals::Use::Totals);
    RingWatcher watcher_{{{name_.Name()}, 10}, totals_};
};

TEST_F(RingWatching, TotalsGoOnFromRoundToRound) {
    Open();
    While([&] { Move(10); });
    ASSERT_TRUE(Now());
    EXPECT_TRUE(Now()->figures.moves);
    EXPECT_EQ(Now()->figures.nodes[0].packets, 10U);
    EXPECT_EQ(Now()->figures.nodes[1].packets, 10U);
    EXPECT_EQ(Now()->figures.nodes[1].bytes, 1000U);
    While([&] { Move(5); });
    EXPECT_EQ(Now()->figures.nodes[0].packets, 15U);
    EXPECT_EQ(Now()->figures.nodes[1].bytes, 1500U);
    EXPECT_TRUE(Now()->figures.byteTotalsAreExact);
    EXPECT_TRUE(Now()->figures.packetTotalsAreExact);
    WatchNothing();
    EXPECT_FALSE(Now()->figures.moves);
    EXPECT_EQ(Now()->figures.nodes[0].packets, 15U);
}

TEST_F(RingWatching, RingThatIsMadeAnewBeginsAnew) {
    Open();
    While([&] { Move(10); });
    ASSERT_EQ(unlink(name_.Path().c_str()), 0);
    Open();
    EXPECT_FALSE(Now());
    While([&] { Move(3); });
    ASSERT_TRUE(Now());
    EXPECT_EQ(Now()->figures.nodes[0].packets, 3U);
    EXPECT_EQ(Now()->figures.nodes[1].bytes, 300U);
}

TEST_F(RingWatching, RingThatIsResizedBeginsAnew) {
    Open();
    While([&] { Move(10); });
    ASSERT_EQ(truncate(name_.Path().c_str(), static_cast<off_t>(kSize + 1000 + 152)), 0);
    While([&] { Move(3); });
    ASSERT_TRUE(Now());
    EXPECT_EQ(Now()->figures.size, kSize + 1000);
    EXPECT_EQ(Now()->figures.nodes[0].packets, 3U);
}

TEST_F(RingWatching, KeepsNothingOfARingThatIsRemoved) {
    Open();
    WatchNothing();
    struct stat status {};
    ASSERT_EQ(stat(name_.Path().c_str(), &status), 0);
    ASSERT_TRUE(totals_->Of(name_.Name(), status));
    ASSERT_EQ(unlink(name_.Path().c_str()), 0);
    WatchNothing();
    EXPECT_FALSE(totals_->Of(name_.Name(), status));
    // Nor is its memory held: no descriptor of this process leads to it.
    reader_.reset();
    writer_.reset();
    std::ifstream maps("/proc/self/maps");
    const std::string mapped{std::istreambuf_iterator<char>(maps), {}};
    EXPECT_EQ(mapped.find(name_.Path()), std::string::npos);
}

TEST_F(RingWatching, AddsUpTheTimeInWhichTheWriterHasNoRoom) {
    constexpr std::uint32_t kFrames = 1;  // two packets fill it
    reader_ = OpenRing({name_.Name(), kSize, 1, true, kFrames});
    writer_ = OpenRing({name_.Name(), kSize, 0, false, kFrames});
    WatchNothing();
    Packet packet;
    EXPECT_EQ(writer_->WritePacket(packet), SMStatusCode::SUCCESS);
    EXPECT_EQ(writer_->WritePacket(packet), SMStatusCode::SUCCESS);
    WatchNothing();
    const double before = Now()->fullSeconds;
    WatchNothing();
    const double full = Now()->fullSeconds;
    EXPECT_GT(full, before);
    const auto next = reader_->ReadNextPacket();
    EXPECT_EQ(reader_->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
    WatchNothing();
    EXPECT_EQ(Now()->fullSeconds, full);
}

TEST_F(RingWatching, RingsThatAreNotChosenOrCannotBeOpenedAreLeftOut) {
    Open();
    RingWatcher none({{"qev-test-no-such-name"}, 10}, totals_);
    none.WatchUntil(RingMeter::Clock::now(), [] { return true; });
    EXPECT_FALSE(Now());
    reader_.reset();
    writer_.reset();
    ASSERT_EQ(unlink(name_.Path().c_str()), 0);
    ASSERT_EQ(mkdir(name_.Path().c_str(), 0700), 0);
    WatchNothing();
    EXPECT_FALSE(Now());
    ASSERT_EQ(rmdir(name_.Path().c_str()), 0);
}

}  // namespace
}  // namespace qel::test
