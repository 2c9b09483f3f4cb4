// A /dev/shm that is too small. The objects' pages are taken when they are first touched, and a
// process that touches one for which there is no room is killed, unless it reserved them before.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "Attempts.h"
#include "Fate.h"
#include "PopulateRing.h"
#include "Rights.h"
#include "RingObject.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRoom = 65536;
constexpr std::uint64_t kLarge = 1U << 20U;

/// Runs `body` where /dev/shm has 64 KiB.
template <typename Body>
std::string WithSmallShm(Body body) {
    return FateOf([&body]() -> std::string {
        if (!EnterNamespaces(CLONE_NEWNS) || !MountMemory("/dev/shm", "mode=1777,size=64k")) {
            return kNoNamespaces;
        }
        return body();
    });
}

std::unique_ptr<SharedPacketBufferIF> LibraryRing(const std::string& name, std::uint8_t node) {
    return SharedMemLibFactory::Create()
        ->GetSharedPacketBuffer({name, kLarge, node, node != 0})
        .buffer;
}

SMStatusCode Write(SharedPacketBufferIF& ring, std::size_t length) {
    std::vector<unsigned char> bytes(length, 1);
    Packet packet;
    packet.data = {bytes.data(), bytes.size()};
    return ring.WritePacket(packet);
}

struct Touch {
    const char* name;
    std::string (*act)(const std::string& ring);
    std::string fate;
};

class AFullShm : public testing::TestWithParam<Touch> {};

TEST_P(AFullShm, EndsAsDocumented) {
    const UniqueRingName name;
    const std::string fate = WithSmallShm([&] { return GetParam().act(name.Name()); });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate, GetParam().fate);
}

const std::string kKilled = "killed by Bus error";

INSTANTIATE_TEST_SUITE_P(
    At, AFullShm,
    testing::Values(
        Touch{"TheLibrarysOpeningWhichTakesOnePage",
              [](const std::string& name) { return TryRing(name, kLarge); }, "works"},
        Touch{"AWriteThatFitsIntoWhatThereIs",
              [](const std::string& name) {
                  const auto ring = LibraryRing(name, 0);
                  return std::string(Write(*ring, kRoom / 2) == SMStatusCode::SUCCESS ? "written"
                                                                                      : "refused");
              },
              "written"},
        Touch{"AWriteThatDoesNot",
              [](const std::string& name) {
                  const auto ring = LibraryRing(name, 0);
                  (void)Write(*ring, 2 * kRoom);
                  return std::string("written");
              },
              kKilled},
        Touch{"AReadOfAPageThatWasNeverWritten",
              [](const std::string& name) {
                  const auto ring = LibraryRing(name, 1);
                  unsigned sum = 0;
                  for (const unsigned char byte : ring->ReadData(0, kLarge).data) {
                      sum += byte;
                  }
                  return "read " + std::to_string(sum);
              },
              kKilled},
        Touch{"OpeningWithPipelineKitWhichReserves",
              [](const std::string& name) {
                  const std::string result = TryOpenRing(name, kLarge);
                  return result == "ring " + name + ": cannot reserve " +
                                       std::to_string(kLarge + 152) + " bytes for /" + name +
                                       ".shm: " + Errno(ENOSPC) +
                                       (RingObject::FindSize(name) ? ", left there" : "")
                             ? "an error that leaves nothing"
                             : result;
              },
              "an error that leaves nothing"},
        Touch{"OpeningWithPipelineKitWhatFits",
              [](const std::string& name) { return TryOpenRing(name, kRoom / 2); }, "works"},
        Touch{"MakingTheObjectBeforehand",
              [](const std::string& name) {
                  const std::string result = Result([&] { const RingObject object(name, kLarge); });
                  return result == "ring " + name + ": cannot reserve " +
                                       std::to_string(kLarge + 152) + " bytes for /" + name +
                                       ".shm: " + Errno(ENOSPC)
                             ? "an error"
                             : result;
              },
              "an error"},
        Touch{"PopulatingWhatTheLibraryOpened",
              [](const std::string& name) {
                  const auto ring = LibraryRing(name, 0);
                  const std::string result = Result([&] { PopulateRing(*ring, kLarge); });
                  return result == "ring " + name + ": cannot populate " + std::to_string(kLarge) +
                                       " bytes: " + Errno(EFAULT)
                             ? "an error"
                             : result;
              },
              "an error"}),
    [](const auto& row) { return row.param.name; });

TEST(AFullShm, LeavesARingThatWasReservedToTheFull) {
    const UniqueRingName name;
    const std::string fate = WithSmallShm([&] {
        const RingObject object(name.Name(), kRoom / 2);
        std::ofstream fill("/dev/shm/fill", std::ios::binary);
        fill << std::string(kRoom, 'x') << std::flush;
        const auto ring = OpenRing({name.Name(), kRoom / 2, 0});
        return fill.fail() && Write(*ring, kRoom / 2 - 26 - 130) == SMStatusCode::SUCCESS
                   ? "written"
                   : "not full, or refused";
    });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate, "written");
}

TEST(AFullShm, HasNoRoomForANewSemaphore) {
    const UniqueSemaphoreName name;
    const std::string fate = WithSmallShm([&] {
        std::ofstream("/dev/shm/fill", std::ios::binary) << std::string(2 * kRoom, 'x');
        return TrySemaphore(name.Name()) + "\n" + TrySystemSemaphore(name.Name());
    });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate,
              "Exception: Problem Creating Semaphore - 28\n"
              "Exception: Problem Creating Semaphore\n"
              "cannot open semaphore " +
                  name.Name() + ": " + Errno(ENOSPC));
}

}  // namespace
}  // namespace qel::test
