#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <string>

#include "ChildProcess.h"
#include "GuardedPage.h"
#include "RingFile.h"
#include "RingObject.h"
#include "RingUnderTest.h"
#include "Thrown.h"

namespace qel::test {
namespace {

using testing::HasSubstr;

constexpr std::uint64_t kSize = RingUnderTest::kSize;

std::uint64_t MemoryOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks);
}

TEST(RingFileOpening, OfARingThatIsNotThereGivesNothingAndMakesNothing) {
    const UniqueRingName name;
    EXPECT_FALSE(RingFile::Open(name.Name()));
    EXPECT_NE(access(name.Path().c_str(), F_OK), 0);
}

TEST(RingFileOpening, OfWhatIsNoFileIsRefusedWithoutWaiting) {
    const UniqueRingName name;
    ASSERT_EQ(mkfifo(name.Path().c_str(), 0600), 0);
    EXPECT_EQ(Thrown([&] { (void)RingFile::Open(name.Name()); }),
              "cannot read " + name.Path() + ": 22(Invalid argument)");
}

TEST(RingFileOpening, FollowsNoSymbolicLink) {
    const RingUnderTest ring;
    const UniqueRingName name;
    ASSERT_EQ(symlink(ring.Path().c_str(), name.Path().c_str()), 0);
    EXPECT_THAT(Thrown([&] { (void)RingFile::Open(name.Name()); }),
                HasSubstr("cannot read " + name.Path() + ": 40("));
}

TEST(RingFileOpening, OfAnObjectWithoutRoomForAControlBlockGivesARingOfNoBytes) {
    const UniqueRingName name;
    const File file(open(name.Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    for (const off_t length : {0, 151, 152}) {
        ASSERT_EQ(ftruncate(file.Fd(), length), 0);
        const auto ring = RingFile::Open(name.Name());
        ASSERT_TRUE(ring);
        EXPECT_EQ(ring->Size(), 0U);
        EXPECT_EQ(ring->Fields(), RingFields());
        EXPECT_FALSE(ring->HeaderAt(0));
        EXPECT_FALSE(ring->Read(0, nullptr, 1));
        EXPECT_TRUE(ring->Read(0, nullptr, 0));
    }
}

TEST(RingFileFields, AreThoseOfTheControlBlock) {
    const RingUnderTest ring(2, 6);
    ring.Write(0, 100);
    ring.Write(1, 200);
    ring.PassOn(1);
    const auto file = RingFile::Open(ring.Name());
    ASSERT_TRUE(file);
    EXPECT_EQ(file->Size(), kSize);
    EXPECT_EQ(file->Name(), ring.Name());
    RingFields expected;
    expected.avail = {kSize - 352, 226, 126, 0, 0};
    expected.wIdx = {352, 0, 0, 0, 0};
    expected.rIdx = {0, 126, 0, 0, 0};
    expected.numPackets = 2;
    expected.initialised = 1;
    expected.maxPackets = 7;
    expected.halfSize = kSize / 2;
    expected.quarterSize = kSize / 4;
    EXPECT_EQ(file->Fields(), expected);
    EXPECT_EQ(file->StableFields(), expected);
}

TEST(RingFileFields, ShowWhatChangesLater) {
    const RingUnderTest ring;
    const auto file = RingFile::Open(ring.Name());
    ASSERT_TRUE(file);
    EXPECT_EQ(file->Fields().wIdx[0], 0U);
    ring.Write(0, 100);
    EXPECT_EQ(file->Fields().wIdx[0], 126U);
}

TEST(RingFileFields, TellIfAReservedByteIsUsed) {
    const RingUnderTest ring;
    for (const off_t place : {125, 127, 132, 135}) {
        const File object(open(ring.Path().c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(pwrite(object.Fd(), "x", 1, place), 1);
        EXPECT_FALSE(RingFile::Open(ring.Name())->Fields().reservedAreZero) << place;
        ASSERT_EQ(pwrite(object.Fd(), "", 1, place), 1);
        EXPECT_TRUE(RingFile::Open(ring.Name())->Fields().reservedAreZero) << place;
    }
}

TEST(RingFileFields, GiveAnObjectWithoutMemoryNoneAndShowWhatComesLater) {
    const UniqueRingName name;
    const File object(open(name.Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(object.Fd(), 1 << 20), 0);
    const auto file = RingFile::Open(name.Name());
    ASSERT_TRUE(file);
    EXPECT_EQ(file->Fields(), RingFields());
    std::array<unsigned char, 100> bytes{};
    EXPECT_TRUE(file->Read(5000, bytes.data(), bytes.size()));
    EXPECT_EQ(MemoryOf(name.Path()), 0U);

    ASSERT_EQ(pwrite(object.Fd(), "\7", 1, 0), 1);
    EXPECT_EQ(file->Fields().avail[0], 7U);
}

TEST(RingFileFields, AreZeroOnceTheObjectIsCut) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kSize);
    const File writing(open(name.Path().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(pwrite(writing.Fd(), "\7", 1, 0), 1);
    const auto file = RingFile::Open(name.Name());
    ASSERT_TRUE(file);
    EXPECT_EQ(file->Fields().avail[0], 7U);
    ASSERT_EQ(ftruncate(writing.Fd(), 0), 0);
    EXPECT_EQ(file->Fields(), RingFields());
    EXPECT_FALSE(file->HeaderAt(0));
    std::array<unsigned char, 100> bytes{};
    EXPECT_FALSE(file->Read(0, bytes.data(), bytes.size()));
    EXPECT_EQ(file->StatusNow().st_size, 0);
}

TEST(RingFileReading, GoesRoundTheRing) {
    const UniqueRingName name;
    const RingObject object(name.Name(), 1000);
    const File writing(open(name.Path().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(pwrite(writing.Fd(), "ab", 2, 152 + 998), 2);
    ASSERT_EQ(pwrite(writing.Fd(), "cd", 2, 152), 2);
    const auto file = RingFile::Open(name.Name());
    std::string bytes(4, ' ');
    ASSERT_TRUE(file->Read(998, bytes.data(), bytes.size()));
    EXPECT_EQ(bytes, "abcd");
    EXPECT_FALSE(file->Read(1001, bytes.data(), 1));
    EXPECT_FALSE(file->Read(0, bytes.data(), 1001));
}

TEST(RingFileHeader, StandsWhereItWasWritten) {
    const RingUnderTest ring;
    ring.Write(0, 100);
    ring.Write(3, 50);
    const auto file = RingFile::Open(ring.Name());
    const auto header = file->HeaderAt(126);
    ASSERT_TRUE(header);
    EXPECT_EQ(+header->length, 50U);  // copies: packed fields have no references
    EXPECT_EQ(+header->pts, 3);
    EXPECT_FALSE(header->key);
    EXPECT_TRUE(file->HeaderAt(kSize - 26));
    EXPECT_FALSE(file->HeaderAt(kSize - 25));
    EXPECT_FALSE(file->HeaderAt(~std::uint64_t{0}));
}

TEST(RingFileHeader, WithFlagsThatNoBoolCanHaveHasThemSet) {
    const RingUnderTest ring;
    const File object(open(ring.Path().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(pwrite(object.Fd(), "\x80", 1, 152 + 8), 1);
    ASSERT_EQ(pwrite(object.Fd(), "\x02", 1, 152 + 17), 1);
    const auto header = RingFile::Open(ring.Name())->HeaderAt(0);
    ASSERT_TRUE(header);
    EXPECT_TRUE(header->ignoreData);
    EXPECT_TRUE(header->key);
}

TEST(GuardedPage, LetsOtherBusErrorsEndTheProcess) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kSize);
    const File file(open(name.Path().c_str(), O_RDWR | O_CLOEXEC));
    ChildProcess child([&](const Conversation&) {
        const GuardedPage guarded(file.Fd());
        void* const plain = mmap(nullptr, kSize, PROT_READ, MAP_SHARED, file.Fd(), 0);
        if (guarded.Data() == nullptr || plain == MAP_FAILED || ftruncate(file.Fd(), 0) != 0) {
            return 1;
        }
        const auto first = *static_cast<const volatile char*>(guarded.Data());
        return first + *static_cast<const volatile char*>(plain);
    });
    const int status = child.Wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGBUS) << status;
}

TEST(GuardedPage, OfNoFileMapsNothing) {
    EXPECT_EQ(GuardedPage(-1).Data(), nullptr);
    EXPECT_EQ(GuardedPage().Data(), nullptr);
}

TEST(GuardedPage, CanBeGivenAway) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kSize);
    const File file(open(name.Path().c_str(), O_RDONLY | O_CLOEXEC));
    GuardedPage first(file.Fd());
    const void* const data = first.Data();
    GuardedPage second(std::move(first));
    EXPECT_EQ(second.Data(), data);
    GuardedPage third;
    third = std::move(second);
    EXPECT_EQ(third.Data(), data);
}

}  // namespace
}  // namespace qel::test
