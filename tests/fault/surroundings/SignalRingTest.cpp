// A thousand signals a second to the processes of a ring: to a writer and a reader that wait for
// each other, and to whoever opens the ring or waits for a process.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "Attempts.h"
#include "BuildKind.h"
#include "ChildProcess.h"
#include "EndOfStream.h"
#include "Fate.h"
#include "NodeChain.h"
#include "PacketReader.h"
#include "PacketWriter.h"
#include "PopulateRing.h"
#include "ProcessState.h"
#include "RingObject.h"
#include "SignalStorm.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr int kSignals = 20;
constexpr std::uint64_t kSmall = 4096;  // so that each side waits for the other all the time

/// Longest reservation that is not interrupted, as on older kernels; 0: none is.
std::atomic<off_t> longestReservation{0};

}  // namespace
}  // namespace qel::test

extern "C" __attribute__((visibility("default"))) int posix_fallocate(int descriptor, off_t offset,
                                                                      off_t length) {
    using Function = int(int, off_t, off_t);
    static auto* const next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "posix_fallocate"));
    const off_t longest = qel::test::longestReservation;
    return longest != 0 && length > longest ? EINTR : next(descriptor, offset, length);
}

namespace qel::test {
namespace {

class ARingUnderSignals : public testing::TestWithParam<std::tuple<WaitMode, Interrupted>> {
protected:
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node) const {
        return OpenRing({name_.Name(), kSmall, node, node == 1, 5});
    }
    /// Writes numbered packets of lengths that have the ring turn often, until both sides have had
    /// their signals.
    [[nodiscard]] std::string Write(const SharedCount& other) const {
        const auto [mode, interrupted] = GetParam();
        const SharedCount signals;
        const SignalStorm storm(interrupted, signals);
        const auto ring = Open(0);
        PacketWriter writer(*ring, kSmall, mode, [this] { return readerEnded_.Value() != 0; });
        int written = 0;
        for (; written < 1000 || signals.Value() < kSignals || other.Value() < kSignals;
             ++written) {
            std::vector<unsigned char> bytes(static_cast<std::size_t>(written % 1500),
                                             static_cast<unsigned char>(written));
            Packet packet;
            packet.header.pts = written;
            packet.data = {bytes.data(), bytes.size()};
            if (writer.Write(packet) != WriteOutcome::Written) {
                throw std::runtime_error("not written");
            }
        }
        if (writer.WriteCritical(MakeEndOfStream()) != WriteOutcome::Written) {
            throw std::runtime_error("end not written");
        }
        return std::to_string(written) + " packets";
    }
    /// Reads up to the end.
    std::string Read(const SharedCount& signals) const {
        const auto [mode, interrupted] = GetParam();
        const SignalStorm storm(interrupted, signals);
        const auto ring = Open(1);
        PacketReader reader(*ring, mode);
        int read = 0;
        for (;; ++read) {
            const ReceivedPacket received = reader.Next();
            if (received.outcome == ReadOutcome::Packet && !IsPacket(received.packet, read)) {
                return "packet " + std::to_string(read) + " is wrong";
            }
            if (reader.Release(received.ticket) != SMStatusCode::SUCCESS) {
                return "not released";
            }
            if (received.outcome != ReadOutcome::Packet) {
                break;
            }
        }
        return std::to_string(read) + " packets";
    }

    const UniqueRingName name_;
    const SharedCount readerEnded_;

private:
    static bool IsPacket(const Packet& packet, int number) {
        const std::int64_t pts = packet.header.pts;
        bool whole = pts == number && packet.data.size() == static_cast<std::size_t>(number % 1500);
        for (const unsigned char byte : packet.data) {
            whole = whole && byte == static_cast<unsigned char>(number);
        }
        return whole;
    }
};

TEST_P(ARingUnderSignals, CarriesEveryPacketWholeAndInOrder) {
    const SharedCount readersSignals;
    ChildProcess reader([&](const Conversation& parent) {
        parent.Say(Read(readersSignals));
        readerEnded_.Add();
        return 0;
    });
    ChildProcess writer([&](const Conversation& parent) {
        parent.Say(Write(readersSignals));
        return 0;
    });
    const std::string written = writer.Hear();
    if (writer.ExitCode() != 0) {
        reader.Kill();
    }
    EXPECT_EQ(reader.Hear(), written);
}

std::string NameOf(const testing::TestParamInfo<std::tuple<WaitMode, Interrupted>>& row) {
    const auto [mode, interrupted] = row.param;
    const std::string name = mode == WaitMode::Yield   ? "ByYielding"
                             : mode == WaitMode::Sleep ? "BySleeping"
                                                       : "Adaptively";
    return name + (interrupted == Interrupted::Fail ? "" : "Restarted");
}

INSTANTIATE_TEST_SUITE_P(Waiting, ARingUnderSignals,
                         testing::Combine(testing::Values(WaitMode::Yield, WaitMode::Sleep,
                                                          WaitMode::Adaptive),
                                          testing::Values(Interrupted::Fail, Interrupted::Restart)),
                         NameOf);

TEST(OpeningARingUnderSignals, WaitsForTheMakerAllTheSame) {
    if (kThreadSanitizer) {
        GTEST_SKIP() << kHandlersAreLate;
    }
    const UniqueRingName name;
    ASSERT_EQ(TryOpenRing(name.Name()), "works");
    auto maker = std::make_unique<ForeignLock>(name.Path(), LOCK_EX);
    const SharedCount signals;
    ChildProcess opener([&](const Conversation& parent) {
        maker.reset();  // its share of the lock
        std::string said;
        {
            const SignalStorm storm(Interrupted::Fail, signals);
            said = TryOpenRing(name.Name());
        }
        parent.Say(said);
        return 0;
    });
    EXPECT_TRUE(AwaitMore(opener, signals, kSignals));
    maker.reset();
    EXPECT_EQ(opener.Hear(), "works");
}

TEST(OpeningARingUnderSignals, EndsThoughEveryLongReservationIsInterrupted) {
    const UniqueRingName name;
    constexpr std::uint64_t kSize = (1U << 24U) + 12345;
    longestReservation = 1 << 18;
    const std::string result = TryOpenRing(name.Name(), kSize);
    const UniqueRingName other;
    const std::string object = Result([&] { const RingObject made(other.Name(), kSize); });
    longestReservation = 0;
    EXPECT_EQ(result, "works");
    EXPECT_EQ(object, "works");
    struct stat status {};
    ASSERT_EQ(::stat(name.Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(kSize + 152));
    EXPECT_GE(status.st_blocks * 512, status.st_size);
}

TEST(OpeningARingUnderSignals, PopulatesIt) {
    const UniqueRingName name;
    constexpr std::uint64_t kSize = 1U << 22U;
    const SharedCount signals;
    EXPECT_EQ(FateOf([&] {
                  const SignalStorm storm(Interrupted::Fail, signals);
                  const auto ring = OpenRing({name.Name(), kSize, 0});
                  return Result([&] {
                      while (signals.Value() < kSignals) {
                          PopulateRing(*ring, kSize);
                      }
                  });
              }),
              "works");
}

// What the chain's starter does with it is its own affair; it is told that nobody has ended.
TEST(AWaitForANodeUnderSignals, ReturnsAtASignalWithoutAnExit) {
    const SharedCount signals;
    EXPECT_EQ(FateOf([&] {
                  NodeChain chain({[] {
                      ::pause();
                      return 0;
                  }});
                  const SignalStorm storm(Interrupted::Restart, signals);
                  const auto ended = chain.WaitForExit(std::chrono::hours(1));
                  return std::string(ended ? "ended" : "nobody has ended");
              }),
              "nobody has ended");
}

}  // namespace
}  // namespace qel::test
