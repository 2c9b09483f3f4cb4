#include <sys/mman.h>

#include <cerrno>
#include <numeric>

#include "LockFileFixture.h"

namespace qel::test {
namespace {

using ::testing::Each;
using ::testing::IsEmpty;

class LockFileRecord : public LockFileTest {
protected:
    LockFileRecord() { std::iota(counting_.begin(), counting_.end(), static_cast<char>(1)); }

    /// Writes 1, 2, 3, ... 32.
    void WriteCounting() {
        lock_->LockExclusive();
        ASSERT_TRUE(lock_->Write(counting_.data(), 32, 0));
        lock_->UnlockExclusive();
    }

    Record counting_{};
    Record read_{};
};

TEST_F(LockFileRecord, StandsBehindAFlagAndSevenZeros) {
    Make();

    WriteCounting();

    EXPECT_EQ(ReadFile(path_), std::string(1, '\1') + std::string(7, '\0') +
                                   std::string(counting_.begin(), counting_.end()));
    EXPECT_THAT(log_.Records(), IsEmpty());
}

using LockFileRecordDeathTest = LockFileRecord;

TEST_F(LockFileRecordDeathTest, IsNotMarkedAsSetWhenItsWriterDiesOverTheCopy) {
    Make();
    void* const unreadable =
        ::mmap(nullptr, sizeof(Record), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);

    EXPECT_DEATH(
        {
            OpenLockFile writer(path_);
            writer.LockExclusive();
            (void)writer.Write(unreadable, sizeof(Record), 0);
        },
        "");

    EXPECT_EQ(ReadFile(path_), std::string(40, '\0'));
    ::munmap(unreadable, sizeof(Record));
}

TEST_F(LockFileRecord, IsReadBackUnderEitherLock) {
    Make();
    WriteCounting();

    lock_->LockShared();
    EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
    lock_->UnlockShared();
    EXPECT_EQ(read_, counting_);

    read_.fill(0);
    lock_->LockExclusive();
    EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
    lock_->UnlockExclusive();
    EXPECT_EQ(read_, counting_);
}

TEST_F(LockFileRecord, IsReadByEveryoneWhoOpensTheFile) {
    Make();
    WriteCounting();
    OpenLockFile other(path_);

    other.LockShared();
    EXPECT_TRUE(other.Read(read_.data(), 32, 0));
    other.UnlockShared();

    EXPECT_EQ(read_, counting_);
}

TEST_F(LockFileRecord, IsReadInPartsThatLieInside) {
    Make();
    WriteCounting();
    lock_->LockShared();

    read_.fill(0xEE);
    EXPECT_TRUE(lock_->Read(read_.data(), 3, 4));
    EXPECT_EQ((std::vector<int>(read_.begin(), read_.begin() + 4)),
              (std::vector<int>{5, 6, 7, 0xEE}));
    EXPECT_TRUE(lock_->Read(read_.data(), 1, 31));
    EXPECT_EQ(read_[0], 32);
    EXPECT_EQ(read_[1], 6);
}

TEST_F(LockFileRecord, IsWrittenInPartsThatLieInside) {
    Make();
    WriteCounting();
    const Record parts{100, 101, 102};
    lock_->LockExclusive();

    EXPECT_TRUE(lock_->Write(parts.data(), 2, 4));
    EXPECT_TRUE(lock_->Write(parts.data() + 2, 1, 31));

    Record expected = counting_;
    expected[4] = 100;
    expected[5] = 101;
    expected[31] = 102;
    EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
    EXPECT_EQ(read_, expected);
}

TEST_F(LockFileRecord, CountsAsSetAfterAWriteOfNothing) {
    Make();
    lock_->LockExclusive();

    EXPECT_TRUE(lock_->Write(counting_.data(), 0, 32));

    EXPECT_EQ(ReadFile(path_), std::string(1, '\1') + std::string(39, '\0'));
    EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
}

TEST_F(LockFileRecord, OfAForeignFileIsReadWithAnyFlagButZero) {
    WriteFile(path_, std::string(40, '\x80'));
    Make().LockShared();

    EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
    EXPECT_THAT(read_, Each(0x80));
}

TEST_F(LockFileRecord, ThatWasNeverWrittenLeavesTheDestinationAlone) {
    Make().LockShared();
    read_.fill(0xEE);

    EXPECT_FALSE(lock_->Read(read_.data(), 32, 0));

    EXPECT_THAT(read_, Each(0xEE));
    ExpectLogged(LogLevel::Warning, "Read",
                 "tried to read lock file " + path_ + " value but no value has been set");
}

struct Range {
    std::uint64_t length;
    std::uint64_t offset;
};

constexpr std::uint64_t kMost = ~std::uint64_t{0};
constexpr Range kInside[] = {{32, 0}, {0, 32}, {31, 1}, {1, 31}, {0, 0}};
constexpr Range kOutside[] = {{33, 0},          {32, 1},          {1, 32},       {0, 33},
                              {kMost, 0},       {0, kMost},       {1, kMost},    {kMost, 1},
                              {32, kMost - 31}, {kMost - 31, 32}, {kMost, kMost}};

TEST_F(LockFileRecord, IsReadAndWrittenInsideItsRangeOnly) {
    Make();
    WriteCounting();
    lock_->LockExclusive();
    for (const Range& range : kInside) {
        SCOPED_TRACE(std::to_string(range.length) + " at " + std::to_string(range.offset));
        EXPECT_TRUE(lock_->Read(read_.data(), range.length, range.offset));
        EXPECT_TRUE(lock_->Write(read_.data(), range.length, range.offset));
    }
    const std::string before = ReadFile(path_);
    for (const Range& range : kOutside) {
        SCOPED_TRACE(std::to_string(range.length) + " at " + std::to_string(range.offset));
        ExpectFails([&] { (void)lock_->Read(read_.data(), range.length, range.offset); }, "Read",
                    "Read out of range for type");
        ExpectFails([&] { (void)lock_->Write(read_.data(), range.length, range.offset); }, "Write",
                    "Write out of range for type");
    }
    EXPECT_EQ(ReadFile(path_), before);
}

TEST_F(LockFileRecord, IsRefusedByAFileThatIsNotOpenBeforeAllElse) {
    OpenLockFile& lock = MakeUnusable();

    ExpectFails([&] { (void)lock.Read(read_.data(), 33, 0); }, "Read",
                "Attempted to lock invalid LockFile ");
    ExpectFails([&] { (void)lock.Write(read_.data(), 33, 0); }, "Write",
                "Attempted to lock invalid LockFile ");
}

TEST_F(LockFileRecord, IsRefusedByAClosedFileWithItsPath) {
    Make().CloseFile();

    ExpectFails([&] { (void)lock_->Read(read_.data(), 32, 0); }, "Read",
                "Attempted to lock invalid LockFile " + path_);
    ExpectFails([&] { (void)lock_->Write(read_.data(), 32, 0); }, "Write",
                "Attempted to lock invalid LockFile " + path_);
}

TEST_F(LockFileRecord, IsRefusedWithoutALockBeforeItsRangeIsLookedAt) {
    Make();

    ExpectFails([&] { (void)lock_->Read(read_.data(), 33, 0); }, "Read",
                "Read called while not locked");
    ExpectFails([&] { (void)lock_->Write(read_.data(), 33, 0); }, "Write",
                "Write called while not locked for write");
    lock_->LockShared();
    ExpectFails([&] { (void)lock_->Write(read_.data(), 33, 0); }, "Write",
                "Write called while not locked for write");
    EXPECT_EQ(ReadFile(path_), std::string(40, '\0'));
}

TEST_F(LockFileRecord, IsNotReadAfterTheLockHasGone) {
    Make().LockShared();
    lock_->UnlockShared();
    ExpectFails([&] { (void)lock_->Read(read_.data(), 32, 0); }, "Read",
                "Read called while not locked");

    lock_->LockExclusive();
    lock_->UnlockExclusive();
    ExpectFails([&] { (void)lock_->Read(read_.data(), 32, 0); }, "Read",
                "Read called while not locked");
    ExpectFails([&] { (void)lock_->Write(read_.data(), 32, 0); }, "Write",
                "Write called while not locked for write");
}

TEST_F(LockFileRecord, IsNotReadAfterAReleaseTooManyUntilTheNextLock) {
    Make();
    WriteCounting();
    lock_->UnlockShared();
    ASSERT_EQ(lock_->SharedHolders(), -1);

    ExpectFails([&] { (void)lock_->Read(read_.data(), 32, 0); }, "Read",
                "Read called while not locked");
    EXPECT_THAT(read_, Each(0));

    lock_->LockShared();
    EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
    lock_->UnlockShared();
    EXPECT_EQ(read_, counting_);
}

TEST_F(LockFileRecord, IsNotReadFromAFileOfAnotherLength) {
    Make().LockShared();
    for (const std::uint64_t length : {0U, 16U, 39U, 41U}) {
        SCOPED_TRACE(length);
        ASSERT_TRUE(lock_->Resize(length));
        EXPECT_FALSE(lock_->IsReadable());
        ExpectFails([&] { (void)lock_->Read(read_.data(), 32, 0); }, "Read",
                    "Attempted to lock invalid LockFile " + path_);
    }
}

TEST_F(LockFileRecord, IsWrittenToAFileThatIsFirstGivenItsLength) {
    Make().LockExclusive();
    for (const std::uint64_t length : {0U, 16U, 100U}) {
        SCOPED_TRACE(length);
        ASSERT_TRUE(lock_->Resize(length));
        EXPECT_TRUE(lock_->Write(counting_.data(), 32, 0));
        EXPECT_EQ(ReadFile(path_).size(), 40U);
        EXPECT_TRUE(lock_->Read(read_.data(), 32, 0));
        EXPECT_EQ(read_, counting_);
    }
}

TEST_F(LockFileRecord, OutOfRangeIsRefusedBeforeTheFileIsGivenItsLength) {
    Make().LockExclusive();
    ASSERT_TRUE(lock_->Resize(16));

    ExpectFails([&] { (void)lock_->Write(counting_.data(), 33, 0); }, "Write",
                "Write out of range for type");
    EXPECT_EQ(ReadFile(path_).size(), 16U);
}

TEST_F(LockFileRecord, IsNotWrittenWhenTheFileCannotBeGivenItsLength) {
    Make().LockExclusive();
    ASSERT_TRUE(lock_->Resize(16));
    faults_.FailNth("posix_fallocate", 1, ENOSPC);

    ExpectFails([&] { (void)lock_->Write(counting_.data(), 32, 0); }, "Write",
                "Failed to truncate file to specified length");
    EXPECT_EQ(ReadFile(path_), std::string(16, '\0'));
}

TEST_F(LockFileRecord, IsNotWrittenToAFileThatIsMappedNowhere) {
    Make().LockExclusive();
    ASSERT_TRUE(lock_->Resize(0));
    faults_.AnswerNth("mmap", 1, 0);  // a mapping without an address

    EXPECT_FALSE(lock_->Write(counting_.data(), 32, 0));

    EXPECT_THAT(log_.Records(), IsEmpty());
    EXPECT_EQ(ReadFile(path_), std::string(40, '\0'));
}

}  // namespace
}  // namespace qel::test
