#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BuildKind.h"
#include "ChildProcess.h"
#include "FakeKernel.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRingSize = 4096;
constexpr std::uint32_t kMaxFrames = 9;

SharedBufferIF::BufferInfo InfoOf(unsigned node) {
    return {"handover", kRingSize, static_cast<std::uint8_t>(node), node == 1, kMaxFrames};
}

std::vector<unsigned char> SomeBytes(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    return bytes;
}

/// Node 0 of a ring that calls a hook at the moment when node 1 has been handed the bytes.
class HookedRing : public SharedBuffer {
public:
    HookedRing(std::shared_ptr<SysIF> sys, std::function<void()> hook)
        : SharedBuffer(std::move(sys), InfoOf(0)), hook_(std::move(hook)) {}

private:
    SMStatusCode DoReleaseData(std::uint64_t size, std::uint32_t /*count*/) override {
        const bool clamped = IncreaseAvailableSize(size, 1);
        hook_();
        return clamped ? SMStatusCode::INVALID_PARAMETER : SMStatusCode::SUCCESS;
    }

    std::function<void()> hook_;
};

/// Writes by a packet buffer whose reader comes at the very moment that a record is handed on, and
/// releases it at once: by then it must have been counted, too.
class HandingOn : public ::testing::Test {
protected:
    void ReadAtOnce() {
        const auto read = reader_.ReadNextPacket();
        ASSERT_EQ(read.status, SMStatusCode::SUCCESS);
        headers_.push_back(read.packet.header);
        payloads_.emplace_back(read.packet.data.begin(), read.packet.data.end());
        ASSERT_EQ(reader_.ReleasePacket(read.packet), SMStatusCode::SUCCESS);
    }

    const std::shared_ptr<FakeKernel> kernel_ = std::make_shared<FakeKernel>();
    SharedPacketBuffer writer_{std::make_unique<HookedRing>(kernel_, [this] { ReadAtOnce(); })};
    SharedPacketBuffer reader_{std::make_unique<SharedBuffer>(kernel_, InfoOf(1))};
    std::vector<PacketHeader> headers_;
    std::vector<std::vector<unsigned char>> payloads_;
};

TEST_F(HandingOn, HappensWhenHeaderAndPayloadStandInTheRingAndAreCounted) {
    auto payload = SomeBytes(300);
    const Packet packet{{0, false, 7, true, 8, 9}, {payload.data(), payload.size()}};
    ASSERT_EQ(writer_.WritePacket(packet), SMStatusCode::SUCCESS);
    ASSERT_EQ(headers_.size(), 1U);
    const PacketHeader& header = headers_[0];
    EXPECT_EQ(std::uint64_t{header.length}, 300U);
    EXPECT_EQ(std::int64_t{header.pts}, 7);
    EXPECT_EQ(payloads_[0], payload);
}

TEST_F(HandingOn, HappensWhenAllPartsOfAGatheredPayloadStandInTheRing) {
    auto payload = SomeBytes(300);
    const ByteSpan all{payload.data(), payload.size()};
    ASSERT_EQ(writer_.WriteMultiDataPacket({}, {all.first(10), {}, all.subspan(10)}),
              SMStatusCode::SUCCESS);
    ASSERT_EQ(payloads_.size(), 1U);
    EXPECT_EQ(payloads_[0], payload);
}

TEST_F(HandingOn, OfAFillerHappensWhenItsHeaderStandsInTheRing) {
    auto payload = SomeBytes(3000);
    const Packet packet{{}, {payload.data(), payload.size()}};
    ASSERT_EQ(writer_.WritePacket(packet), SMStatusCode::SUCCESS);
    std::reverse(payload.begin(), payload.end());
    ASSERT_EQ(writer_.WritePacket(packet), SMStatusCode::SUCCESS);
    ASSERT_EQ(headers_.size(), 3U);
    EXPECT_TRUE(headers_[1].ignoreData);
    EXPECT_EQ(std::uint64_t{headers_[1].length}, kRingSize - 3026 - 26);
    EXPECT_EQ(payloads_[2], payload);
}

/// What of a record is copied when its bytes have been handed on already.
enum class Late { Nothing, Header, Payload };

/// Moves one record from a thread that writes to one that reads, with the ring's own copying. One
/// record only, so that nothing later puts its copying and its reading in an order after all.
int MoveOneRecord(Late late, std::size_t payloadSize) {
    const auto kernel = std::make_shared<FakeKernel>();
    SharedBuffer writer(kernel, InfoOf(0));
    SharedPacketBuffer reader(std::make_unique<SharedBuffer>(kernel, InfoOf(1)));
    auto payload = SomeBytes(payloadSize);
    PacketHeader header;
    header.length = payloadSize;
    const ByteSpan headerBytes{reinterpret_cast<unsigned char*>(&header), kPacketHeaderSize};
    const ByteSpan payloadBytes{payload.data(), payload.size()};

    std::thread writing([&] {
        const auto handOn = [&] {
            (void)writer.DecreaseAvailableSize(kPacketHeaderSize + payloadSize, 0);
            (void)writer.ReleaseData(kPacketHeaderSize + payloadSize, 1);
        };
        switch (late) {
            case Late::Nothing:
                writer.WriteData(writer.WriteData(0, headerBytes), payloadBytes);
                handOn();
                break;
            case Late::Header:
                writer.WriteData(kPacketHeaderSize, payloadBytes);
                handOn();
                writer.WriteData(0, headerBytes);
                break;
            case Late::Payload:
                writer.WriteData(0, headerBytes);
                handOn();
                writer.WriteData(kPacketHeaderSize, payloadBytes);
                break;
        }
    });
    unsigned sum = 0;
    std::thread reading([&] {
        auto read = reader.ReadNextPacket();
        while (read.status == SMStatusCode::DATA_NOT_AVAILABLE) {
            std::this_thread::yield();
            read = reader.ReadNextPacket();
        }
        sum = std::accumulate(read.packet.data.begin(), read.packet.data.end(), 0U);
    });
    writing.join();
    reading.join();
    std::cout << "read " << sum << std::endl;
    return EXIT_SUCCESS;
}

int Mover(const Arguments& arguments) {
    const Late late = arguments.at(0) == "Header"    ? Late::Header
                      : arguments.at(0) == "Payload" ? Late::Payload
                                                     : Late::Nothing;
    return MoveOneRecord(late, std::stoull(arguments.at(1)));
}
const RegisterRole kMover("mover", Mover);

/// Payload sizes that compilers and libraries copy in different ways.
class RaceDetector : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (!kThreadSanitizer) {
            GTEST_SKIP() << "only a build with ThreadSanitizer has a race detector";
        }
    }

    /// Moves a record in another process; what ThreadSanitizer says about it.
    struct Verdict {
        int status;
        std::string report;
    };
    static Verdict Judge(const char* late) {
        ChildProcess mover("mover", {late, GetParam()});
        std::string report = mover.Errors();
        return {mover.Wait(), std::move(report)};
    }

    static constexpr int kRaceStatus = 66;
    static constexpr char kRaceText[] = "WARNING: ThreadSanitizer: data race";
};

TEST_P(RaceDetector, ReportsAPayloadThatIsCopiedAfterItsBytesWereHandedOn) {
    const Verdict verdict = Judge("Payload");
    EXPECT_EQ(verdict.status, kRaceStatus);
    EXPECT_THAT(verdict.report, ::testing::HasSubstr(kRaceText));
}

TEST_P(RaceDetector, ReportsAHeaderThatIsCopiedAfterItsBytesWereHandedOn) {
    const Verdict verdict = Judge("Header");
    EXPECT_EQ(verdict.status, kRaceStatus);
    EXPECT_THAT(verdict.report, ::testing::HasSubstr(kRaceText));
}

TEST_P(RaceDetector, IsSilentWhenBytesAreHandedOnAfterTheyWereCopied) {
    const Verdict verdict = Judge("Nothing");
    EXPECT_EQ(verdict.status, EXIT_SUCCESS);
    EXPECT_EQ(verdict.report, "");
}

INSTANTIATE_TEST_SUITE_P(PayloadSizes, RaceDetector, ::testing::Values("1", "8", "64", "3000"),
                         [](const auto& size) { return std::string("Of") + size.param; });

}  // namespace
}  // namespace qel::test
