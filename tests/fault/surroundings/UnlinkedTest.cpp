// Names that are taken away while their objects are in use, as logind does when a user's last
// session ends (RemoveIPC) and as tools that tidy up /tmp do. Whoever has the object goes on;
// whoever comes later gets another one of the same name.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "Attempts.h"
#include "Files.h"
#include "NodeClaim.h"
#include "ProcessState.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

class ARemovedRing : public testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node) const {
        return SharedMemLibFactory::Create()
            ->GetSharedPacketBuffer({name_.Name(), kRingSize, node, node == 1})
            .buffer;
    }
    static bool Carries(SharedPacketBufferIF& from, SharedPacketBufferIF& to) {
        const bool written = from.WritePacket({}) == SMStatusCode::SUCCESS;
        const auto read = to.ReadNextPacket();
        return written && read.status == SMStatusCode::SUCCESS &&
               to.ReleasePacket(read.packet) == SMStatusCode::SUCCESS;
    }
    void Remove() const { ASSERT_EQ(::shm_unlink(name_.ObjectName().c_str()), 0); }

    const UniqueRingName name_;
};

TEST_F(ARemovedRing, GoesOnForThoseWhoHaveIt) {
    const auto writer = Open(0);
    const auto reader = Open(1);
    Remove();
    EXPECT_TRUE(Carries(*writer, *reader));
}

TEST_F(ARemovedRing, IsAnotherOneForWhoeverComesLater) {
    const auto writer = Open(0);
    const auto reader = Open(1);
    Remove();
    const auto later = Open(1);
    EXPECT_FALSE(Carries(*writer, *later));
    EXPECT_EQ(reader->ReadNextPacket().status, SMStatusCode::SUCCESS);
    const auto newWriter = Open(0);
    EXPECT_TRUE(Carries(*newWriter, *later));
}

TEST_F(ARemovedRing, IsMarkedInTheListOfMappings) {
    const auto writer = Open(0);
    EXPECT_EQ(HoldingsOf(name_.Path() + " (deleted)").mappings, 0);
    Remove();
    const auto later = Open(1);
    EXPECT_EQ(HoldingsOf(name_.Path() + " (deleted)").mappings, 1);
    EXPECT_EQ(HoldingsOf(name_.Path()).mappings, 2);
}

// The claim goes with the object.
TEST_F(ARemovedRing, LetsANodeBeClaimedTwice) {
    const auto first = Open(1);
    const NodeClaim claim(name_.Name(), 1);
    EXPECT_THROW(NodeClaim(name_.Name(), 1), NodeTaken);
    Remove();
    const auto second = Open(1);
    EXPECT_NO_THROW(NodeClaim(name_.Name(), 1));
}

TEST(ARemovedSemaphore, GoesOnForThoseWhoHaveItAndIsAnotherOneForWhoeverComesLater) {
    const UniqueSemaphoreName name;
    const std::string systemName = name.Name().substr(1);
    const NamedSemaphore waiter(name.Name(), 0);
    const SystemSemaphore poster(systemName, SystemSemaphore::IfMissing::Refuse);
    ASSERT_EQ(::sem_unlink(name.Name().c_str()), 0);
    const SystemSemaphore later(systemName, SystemSemaphore::IfMissing::Create);
    poster.Post();
    EXPECT_EQ(later.Value(), 0);
    EXPECT_TRUE(waiter.TryWait());
    later.Post();
    EXPECT_FALSE(waiter.TryWait());
}

class ARemovedLockFile : public testing::Test {
protected:
    void Remove() const { ASSERT_EQ(::unlink(name_.LockPath().c_str()), 0); }

    const UniqueBlockName name_;
    SharedMemoryBlockWriter writer_{name_.Name(), kBlockSize};
    SharedMemoryBlockReader reader_{name_.Name()};
};

TEST_F(ARemovedLockFile, IsStillTheLockOfThoseWhoHaveTheBlock) {
    Remove();
    writer_.LockForWrite();
    EXPECT_FALSE(reader_.TryLock());
    writer_.GetDataForWrite()[0] = 7;
    writer_.UnlockForWrite();
    ASSERT_TRUE(reader_.TryLock());
    EXPECT_EQ(reader_.GetData()[0], 7);
    reader_.Unlock();
}

TEST_F(ARemovedLockFile, HidesTheBlockFromReadersThatComeLater) {
    Remove();
    EXPECT_EQ(TryReader(name_.Name()),
              "failed to open shared memory: failed to read lockFile to get metadata");
}

TEST_F(ARemovedLockFile, HasAWriterThatComesLaterMakeASecondBlock) {
    Remove();
    SharedMemoryBlockWriter later(name_.Name(), 500);
    EXPECT_EQ(later.Size(), 500U);
    EXPECT_EQ(writer_.Size(), kBlockSize);
    later.LockForWrite();
    EXPECT_TRUE(writer_.TryLockForWrite());  // neither knows of the other
    writer_.UnlockForWrite();
    later.UnlockForWrite();
}

TEST_F(ARemovedLockFile, IsMarkedInTheListOfDescriptors) {
    Remove();
    EXPECT_EQ(HoldingsOf(name_.LockPath() + " (deleted)").descriptors, 2);
}

// With the same record in it: the same memory, and two locks of it.
TEST_F(ARemovedLockFile, ThatIsReplacedByACopyNoLongerKeepsOthersOut) {
    const std::string copy = name_.LockPath() + ".copy";
    WriteFile(copy, ReadFile(name_.LockPath()));
    ASSERT_EQ(std::rename(copy.c_str(), name_.LockPath().c_str()), 0);
    SharedMemoryBlockWriter later(name_.Name(), kBlockSize);
    writer_.LockForWrite();
    ASSERT_TRUE(later.TryLockForWrite());
    later.GetDataForWrite()[0] = 7;
    EXPECT_EQ(writer_.GetDataForWrite()[0], 7);
    later.UnlockForWrite();
    writer_.UnlockForWrite();
}

}  // namespace
}  // namespace qel::test
