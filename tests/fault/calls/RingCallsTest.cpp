// Rings whose system calls are refused: opened as the first and as a later process, used, and
// through the library's entry.

#include <gtest/gtest.h>

#include <numeric>

#include "Explorer.h"
#include "SharedBuffer.h"
#include "SharedMemLibFactory.h"
#include "SharedPacketBuffer.h"
#include "Sys.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 4096;

std::vector<unsigned char> Content() {
    std::vector<unsigned char> content(100);
    std::iota(content.begin(), content.end(), static_cast<unsigned char>(7));
    return content;
}

/// Writes a packet; its status.
SMStatusCode WriteOne(SharedPacketBufferIF& ring) {
    std::vector<unsigned char> content = Content();
    Packet packet;
    packet.data = content;
    return ring.WritePacket(packet);
}

/// Reads a packet and releases it; what it held.
std::vector<unsigned char> ReadOne(SharedPacketBufferIF& ring) {
    const ReadNextPacketResult read = ring.ReadNextPacket();
    std::vector<unsigned char> content(read.packet.data.begin(), read.packet.data.end());
    EXPECT_EQ(ring.ReleasePacket(read.packet), SMStatusCode::SUCCESS);
    return content;
}

class RingScenario : public Scenario {
public:
    using Scenario::Scenario;

    void Destroy() override { ring_.reset(); }
    void Again() override {
        ring_ = Open(sys_, 0);
        const auto sink = Open(sys_, 1);
        EXPECT_EQ(WriteOne(*ring_), SMStatusCode::SUCCESS);
        for (int packet = 0; packet <= waiting_; ++packet) {
            EXPECT_EQ(ReadOne(*sink), Content());
        }
        EXPECT_EQ(ring_->GetCurrentCapacity().numPackets, 0U);
        ring_.reset();
    }

protected:
    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node) const {
        return {names_.ring.Name(), kSize, node, node == 1, 4};
    }
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(const std::shared_ptr<SysIF>& sys,
                                                             std::uint8_t node) const {
        return std::make_unique<SharedPacketBuffer>(
            std::make_unique<SharedBuffer>(sys, Info(node)));
    }

    std::unique_ptr<SharedPacketBufferIF> ring_;
    int waiting_ = 0;  ///< packets for the sink
};

/// Opens the ring as a node; nobody has before.
class FirstOpening : public RingScenario {
public:
    using RingScenario::RingScenario;

    std::string Run() override {
        ring_ = Open(sys_, 0);
        return "opened";
    }
};

/// The same for a ring in which somebody has left packets.
class LaterOpening : public FirstOpening {
public:
    LaterOpening(const World& world, std::uint8_t node) : FirstOpening(world), node_(node) {}

    void Prepare() override {
        const auto writer = Open(std::make_shared<Sys>(), 0);
        for (; waiting_ < 3; ++waiting_) {
            ASSERT_EQ(WriteOne(*writer), SMStatusCode::SUCCESS);
        }
    }
    std::string Run() override {
        ring_ = Open(sys_, node_);
        return "opened";
    }

private:
    std::uint8_t node_;
};

/// A packet from the writer to the sink.
class Use : public RingScenario {
public:
    using RingScenario::RingScenario;

    std::string Run() override {
        ring_ = Open(sys_, 0);
        sink_ = Open(sys_, 1);
        const bool written = WriteOne(*ring_) == SMStatusCode::SUCCESS;
        return written && ReadOne(*sink_) == Content() ? "sent" : "lost";
    }
    void Destroy() override {
        sink_.reset();
        ring_.reset();
    }

private:
    std::unique_ptr<SharedPacketBufferIF> sink_;
};

/// Asks the library's entry for the ring.
class Entry : public RingScenario {
public:
    using RingScenario::RingScenario;

    std::string Run() override {
        SharedPacketBufferResult result =
            SharedMemLibFactory::Create()->GetSharedPacketBuffer(Info(0));
        ring_ = std::move(result.buffer);
        return (ring_ == nullptr ? "nothing, status " : "ring, status ") +
               std::to_string(static_cast<int>(result.status));
    }
};

constexpr const char* kOpen = "shm_open(/RING.shm, 66, 438)";
constexpr const char* kSizeIt = "ftruncate(RING, 4248)";
constexpr const char* kMap = "mmap(4248, 3, 1, RING, 0)";
constexpr const char* kClose = "close(RING)";
constexpr const char* kUnmap = "munmap(4248)";

/// What is logged for each refused step, beside the `thrown` that it is shown as.
std::vector<Row> StepRows(Outcome (*thrown)(const std::string&)) {
    return {
        At(kOpen, thrown("Exception: Problem Creating Shared memory segment")
                      .LogsOfRing("OpenShm", 420,
                                  "{RING} Problem Creating Shared memory segment - {errno}")),
        At(kSizeIt, thrown("Exception: Problem Allocating Shared Memory")
                        .LogsOfRing("AllocateShm", 437,
                                    "{RING} Problem Allocating Shared Memory - {errno}")),
        At(kMap, thrown("Exception: Unable to map shared memory")
                     .LogsOfRing("MapShm", 458, "{RING} Unable to map shared memory - {errno}")),
        At(kClose,
           thrown("Exception: Closing shared memory fd")
               .LogsOfRing("CloseShm", 493, "{RING} Problem closing shared memory fd - {errno}")),
    };
}

Outcome NotUnmapped(const Outcome& success) {
    return success.LogsOfRing("operator()", 473, "Problem unmapping shared memory fd - {errno}");
}

Outcome Thrown(const std::string& text) {
    return Throws(text);
}

Table OpeningTable() {
    Table table{Returns("opened"), StepRows(Thrown), {}, {}, true};
    table.rows.push_back(At(kUnmap, NotUnmapped(table.success)));
    return table;
}

TEST(RefusedCallsOfARing, WhenItIsOpenedFirst) {
    Explore(Make<FirstOpening>(), OpeningTable());
}

TEST(RefusedCallsOfARing, WhenItIsOpenedAgainByItsWriter) {
    Explore(Make<LaterOpening>(std::uint8_t{0}), OpeningTable());
}

TEST(RefusedCallsOfARing, WhenItIsOpenedAgainByAReader) {
    Explore(Make<LaterOpening>(std::uint8_t{1}), OpeningTable());
}

TEST(RefusedCallsOfARing, WhenAPacketIsSentWhichTakesNoCallOfItsOwn) {
    Table table{Returns("sent"), StepRows(Thrown), {}, {}};
    table.rows.push_back(At(kUnmap, NotUnmapped(table.success))
                             .Ever(NotUnmapped(NotUnmapped(table.success)))
                             .Nth(1));
    table.rows.push_back(At(kUnmap, NotUnmapped(table.success)).Nth(2));
    Explore(Make<Use>(), table);
}

Outcome Refused(const std::string& text) {
    return Returns("nothing, status 2")
        .Prints("Trouble creating shared memory invalid parameter: " + text + "\n");
}

TEST(RefusedCallsOfARing, WhenTheEntryIsAskedForIt) {
    Table table{Returns("ring, status 0"), StepRows(Refused), {}, {}, true};
    table.rows.push_back(At(kUnmap, NotUnmapped(table.success)));
    ExploreDirectCalls(Make<Entry>(), table);
}

}  // namespace
}  // namespace qel::test
