// A mapped file whose system calls are refused one after the other.

#include <sys/mman.h>

#include <cerrno>
#include <limits>
#include <string>

#include "CallFaults.h"
#include "MappedFileFixture.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;

class AFailingMappedFile : public AMappedFile {
protected:
    AFailingMappedFile() { WriteFile(path_, "hello"); }

    void SetUp() override { faults_.Alias(path_, "FILE"); }

    /// As it was made by the constructor of this fixture, with nothing held twice.
    void ExpectUntouched(const MappedFile& file, const unsigned char* data) const {
        EXPECT_EQ(file.Data(), data);
        EXPECT_EQ(Text(file), "hello");
        EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
    }

    CallFaults faults_;
};

TEST_F(AFailingMappedFile, SaysThatItCouldNotBeExamined) {
    faults_.FailNth("fstat", 1, EIO);

    EXPECT_EQ(Refusal(path_, true),
              "MappedFile: could not examine " + path_ + ": Input/output error");
    EXPECT_EQ(HoldingsOf(path_), Holdings{});
}

TEST_F(AFailingMappedFile, SaysThatItCouldNotBeMapped) {
    faults_.FailNth("mmap", 1, ENOMEM);

    EXPECT_EQ(Refusal(path_, true),
              "MappedFile: could not map " + path_ + ": Cannot allocate memory");
    EXPECT_EQ(HoldingsOf(path_), Holdings{});
}

TEST_F(AFailingMappedFile, GrowsByTakingRoomThenCuttingThenMapping) {
    MappedFile file(path_, true);
    faults_.ForgetCalls();

    ASSERT_TRUE(file.TruncateTo(40));

    EXPECT_THAT(faults_.Calls(), ElementsAre("posix_fallocate(FILE, 0, 40)", "ftruncate(FILE, 40)",
                                             "mmap(40, 3, 1, FILE, 0)", "munmap(5)"));
}

TEST_F(AFailingMappedFile, ShrinksByMappingBeforeItCuts) {
    MappedFile file(path_, true);
    faults_.ForgetCalls();

    ASSERT_TRUE(file.TruncateTo(3));

    EXPECT_THAT(faults_.Calls(),
                ElementsAre("mmap(3, 3, 1, FILE, 0)", "ftruncate(FILE, 3)", "munmap(5)"));
}

TEST_F(AFailingMappedFile, TakesRoomAgainAfterAnInterruption) {
    MappedFile file(path_, true);
    faults_.FailNth("posix_fallocate", 1, EINTR);
    faults_.FailNth("posix_fallocate", 2, EINTR);

    EXPECT_TRUE(file.TruncateTo(40));
    EXPECT_EQ(faults_.Calls("posix_fallocate").size(), 3U);
    EXPECT_EQ(file.Length(), 40U);
}

TEST_F(AFailingMappedFile, StaysAsItWasWhenThereIsNoRoomToGrow) {
    MappedFile file(path_, true);
    const unsigned char* const data = file.Data();
    faults_.FailNth("posix_fallocate", 1, ENOSPC);

    EXPECT_FALSE(file.TruncateTo(40));
    EXPECT_EQ(errno, ENOSPC);
    ExpectUntouched(file, data);
    EXPECT_EQ(ReadFile(path_), "hello");
}

TEST_F(AFailingMappedFile, AsksTheSystemForEveryLengthThatAFileCanHave) {
    MappedFile file(path_, true);
    faults_.FailNth("posix_fallocate", 1, ENOSPC);

    EXPECT_FALSE(file.TruncateTo(std::numeric_limits<off_t>::max()));
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(AFailingMappedFile, StaysMappedAsItWasWhenItCannotBeCutToAGreaterLength) {
    MappedFile file(path_, true);
    const unsigned char* const data = file.Data();
    faults_.FailNth("ftruncate", 1, EPERM);

    EXPECT_FALSE(file.TruncateTo(40));
    EXPECT_EQ(errno, EPERM);
    ExpectUntouched(file, data);
}

TEST_F(AFailingMappedFile, StaysMappedAsItWasWhenItsGreaterLengthCannotBeMapped) {
    MappedFile file(path_, true);
    const unsigned char* const data = file.Data();
    faults_.FailNth("mmap", 1, ENOMEM);

    EXPECT_FALSE(file.TruncateTo(40));
    EXPECT_EQ(errno, ENOMEM);
    ExpectUntouched(file, data);
}

TEST_F(AFailingMappedFile, StaysAsItWasWhenItsSmallerLengthCannotBeMapped) {
    MappedFile file(path_, true);
    const unsigned char* const data = file.Data();
    faults_.FailNth("mmap", 1, ENOMEM);

    EXPECT_FALSE(file.TruncateTo(3));
    EXPECT_EQ(errno, ENOMEM);
    ExpectUntouched(file, data);
    EXPECT_EQ(ReadFile(path_), "hello");
}

TEST_F(AFailingMappedFile, StaysAsItWasWhenItCannotBeCut) {
    MappedFile file(path_, true);
    const unsigned char* const data = file.Data();
    faults_.FailNth("ftruncate", 1, EPERM);

    EXPECT_FALSE(file.TruncateTo(3));
    EXPECT_EQ(errno, EPERM);
    ExpectUntouched(file, data);
    EXPECT_EQ(ReadFile(path_), "hello");
}

TEST_F(AFailingMappedFile, TellsWhyItCouldNotBeCutAlsoWhenItCannotUnmapEither) {
    MappedFile file(path_, true);
    faults_.FailNth("ftruncate", 1, EPERM);
    faults_.FailNth("munmap", 1, EINVAL);

    EXPECT_FALSE(file.TruncateTo(3));
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(Text(file), "hello");
}

TEST_F(AFailingMappedFile, StaysAsItWasWhenItCannotBeCutToNothing) {
    MappedFile file(path_, true);
    const unsigned char* const data = file.Data();
    faults_.FailNth("ftruncate", 1, EPERM);

    EXPECT_FALSE(file.TruncateTo(0));
    EXPECT_EQ(errno, EPERM);
    ExpectUntouched(file, data);
    EXPECT_EQ(ReadFile(path_), "hello");
}

TEST_F(AFailingMappedFile, UnmapsBeforeItCloses) {
    { const MappedFile file(path_, false); }

    const auto calls = faults_.Calls();
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(calls[calls.size() - 2], "munmap(5)");
    EXPECT_EQ(calls.back(), "close(FILE)");
}

}  // namespace
}  // namespace qel::test
