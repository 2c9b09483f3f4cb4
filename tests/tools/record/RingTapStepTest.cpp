// The writer does something at each of the tap's looks at the ring, one after the other.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "InPlaceWriter.h"
#include "OpenRing.h"
#include "PayloadAlignment.h"
#include "RingTap.h"
#include "TellingPackets.h"
#include "UniqueRingName.h"

namespace {

/// What happens ahead of each read of a file.
std::function<void()> aheadOfRead;  // NOLINT(cert-err58-cpp)

}  // namespace

/// The C library's, and what is to happen ahead of it.
extern "C" ssize_t pread(int fd, void* to, std::size_t size, off_t offset) {
    if (aheadOfRead) {
        aheadOfRead();
    }
    return syscall(SYS_pread64, fd, to, size, offset);
}

namespace qel::test {
namespace {

/// A chain whose writer and sink are at hand.
class Chain {
public:
    static constexpr std::uint64_t kSize = 3000;

    Chain(const TellingPackets& packets, bool inPlace) : packets_(packets), isInPlace_(inPlace) {}

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::uint64_t Written() const { return written_; }

    /// Writes so many packets; the sink takes each at once.
    void Pass(std::uint64_t count) {
        inPlace_.GiveUp();
        for (const std::uint64_t end = written_ + count; written_ < end;) {
            written_ += Write(packets_.Make(written_)) == SMStatusCode::SUCCESS ? 1 : 0;
            for (auto next = sink_->ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
                 next = sink_->ReadNextPacket()) {
                EXPECT_EQ(sink_->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
            }
        }
        if (isInPlace_) {
            FillRoomAhead();
        }
    }

private:
    SMStatusCode Write(const Packet& packet) {
        if (!isInPlace_) {
            return writer_->WritePacket(packet);
        }
        const ReadResult room = inPlace_.Reserve(packet.data.size());
        if (room.status == SMStatusCode::SUCCESS) {
            std::copy(packet.data.begin(), packet.data.end(), room.data.begin());
            EXPECT_EQ(inPlace_.Commit(packet.header, packet.data.size()), SMStatusCode::SUCCESS);
        }
        return room.status;
    }

    /// Of a packet that is to come. It wants no filler, since that would be made for nothing.
    void FillRoomAhead() {
        constexpr std::uint64_t kMost = kSize / 2;
        const std::uint64_t around = WriteIndexOf(*writer_, 0) + 2 * kPacketHeaderSize;
        if (around < kSize) {
            const ReadResult room = inPlace_.Reserve(std::min(kSize - around, kMost));
            EXPECT_EQ(room.status, SMStatusCode::SUCCESS);
            std::fill(room.data.begin(), room.data.end(), 0x55);
        }
    }

    UniqueRingName name_;
    TellingPackets packets_;
    bool isInPlace_;
    std::unique_ptr<SharedPacketBufferIF> writer_ = OpenRing({name_.Name(), kSize, 0, false, 0});
    std::unique_ptr<SharedPacketBufferIF> sink_ = OpenRing({name_.Name(), kSize, 1, true, 0});
    InPlaceWriter inPlace_{*writer_};
    std::uint64_t written_ = 0;
};

RingTap TapOf(const Chain& chain) {
    auto ring = RingFile::Open(chain.Name());
    if (!ring) {
        throw std::runtime_error("no ring");
    }
    return {std::move(*ring), RingTap::Start::Now};
}

/// Follows what has been written to its end; what is wrong, if anything.
class Reader {
public:
    explicit Reader(const TellingPackets& packets) : packets_(packets) {}

    std::string ReadAll(RingTap& tap) {
        constexpr int kMostOverruns = 100;
        int overruns = 0;
        for (int vain = 0; vain < 3;) {
            const TapResult result = tap.TryNext();
            if (result.outcome == TapOutcome::Nothing) {
                ++vain;
            } else if (result.outcome == TapOutcome::Overrun) {
                mayMiss_ = true;
                if (++overruns > kMostOverruns) {
                    return "overruns without end";
                }
            } else if (const std::string fault = Take(result); !fault.empty()) {
                return fault;
            }
        }
        return "";
    }

    /// Nothing is behind the last packet but what an overrun may have swallowed.
    [[nodiscard]] bool IsAt(std::uint64_t written) const { return mayMiss_ || next_ == written; }

private:
    std::string Take(const TapResult& result) {
        const auto number = packets_.NumberOf(result.header, result.payload);
        if (!number) {
            return "torn behind " + std::to_string(next_);
        }
        if (*number < next_ || (*number > next_ && !mayMiss_)) {
            return std::to_string(*number) + " instead of " + std::to_string(next_);
        }
        next_ = *number + 1;
        mayMiss_ = false;
        return "";
    }

    TellingPackets packets_;
    std::uint64_t next_ = 0;
    bool mayMiss_ = false;
};

struct Sizes {
    const char* name;
    std::uint64_t smallest;
    std::uint64_t largest;
    TellingPackets::Times times;
    bool inPlace = false;
};

void PrintTo(const Sizes& sizes, std::ostream* out) {
    *out << sizes.name;
}

using Times = TellingPackets::Times;

class RingTapSteps : public testing::TestWithParam<Sizes> {
protected:
    ~RingTapSteps() override { aheadOfRead = nullptr; }
};

TEST_P(RingTapSteps, WriterMayComeBetweenAnyTwoLooks) {
    const TellingPackets packets(GetParam().smallest, GetParam().largest, GetParam().times);
    constexpr int kLooks = 14;
    for (std::uint64_t ahead = 0; ahead < 12; ++ahead) {  // of the tap, when it looks
        for (int look = 0; look < kLooks; ++look) {
            for (const std::uint64_t burst : {1U, 2U, 5U, 8U, 9U, 10U, 11U, 19U, 40U}) {
                Chain chain(packets, GetParam().inPlace);
                RingTap tap = TapOf(chain);
                Reader reader(packets);
                // A packet alone does not tell whether the next shares its times.
                chain.Pass(GetParam().times == Times::Shared ? 2 : 0);
                ASSERT_EQ(reader.ReadAll(tap), "");
                chain.Pass(ahead);
                int looks = 0;
                aheadOfRead = [&] {
                    if (looks++ == look) {
                        chain.Pass(burst);
                    }
                };
                ASSERT_EQ(reader.ReadAll(tap), "")
                    << ahead << " ahead, " << burst << " at look " << look;
                aheadOfRead = nullptr;
                ASSERT_GT(looks, 0) << "the tap reads in another way";
                ASSERT_EQ(reader.ReadAll(tap), "")
                    << ahead << " ahead, " << burst << " at look " << look;
                ASSERT_TRUE(reader.IsAt(chain.Written()))
                    << ahead << " ahead, " << burst << " at look " << look;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Packets, RingTapSteps,
                         testing::Values(Sizes{"OfOneSize", 274, 274, Times::Each},
                                         Sizes{"OfOneSizeWithoutTimes", 274, 274, Times::None},
                                         Sizes{"OfOneSizeWithSharedTimes", 274, 274, Times::Shared},
                                         Sizes{"OfAnySize", 8, 600, Times::Each},
                                         Sizes{"OfAnySizeWithSharedTimes", 8, 600, Times::Shared},
                                         Sizes{"ThatAreLarge", 700, 2000, Times::Each},
                                         Sizes{"OfOneSizeInPlace", 274, 274, Times::Each, true},
                                         Sizes{"OfAnySizeInPlace", 8, 600, Times::None, true},
                                         Sizes{"ThatAreLargeInPlace", 700, 2000, Times::Each,
                                               true}),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace qel::test
