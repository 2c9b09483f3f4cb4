// Blocks whose creator is another process, alive and gone.

#include <csignal>

#include "BlockFixture.h"
#include "ChildProcess.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"

namespace qel::test {
namespace {

constexpr const char* kGone = "failed to open shared memory: file does not exist";

class ABlockOfAnotherProcess : public BlockTest {
protected:
    void SetUp() override { ASSERT_EQ(creator_.Hear(), "made"); }

    /// Makes a block with "hello" in it and does nothing until it is told to end.
    ChildProcess creator_{[this](const Conversation& parent) {
        const auto block = Creator(1000);
        Put(*block, "hello");
        parent.Say("made");
        (void)parent.Hear();
        return 0;
    }};
};

TEST_F(ABlockOfAnotherProcess, IsOpenedThroughItsCreator) {
    EXPECT_EQ(Record().pid, creator_.Pid());

    const auto reader = Opener();
    const auto writer = Creator(5);

    EXPECT_EQ(reader->Size(), 1000U);
    EXPECT_EQ(writer->Size(), 1000U);
    EXPECT_EQ(DataOf(*reader).substr(0, 6), std::string("hello\0", 6));
    Put(*writer, "world");
    EXPECT_EQ(DataOf(*reader).substr(0, 6), std::string("world\0", 6));
    EXPECT_EQ(Record().pid, creator_.Pid()) << "attaching does not announce anew";
}

TEST_F(ABlockOfAnotherProcess, CannotBeOpenedAfterItsCreatorHasEnded) {
    creator_.Say("end");
    ASSERT_EQ(creator_.ExitCode(), 0);

    EXPECT_EQ(OpenerFailure(), kGone);
    EXPECT_EQ(CreatorFailure(0), kGone);
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(ABlockOfAnotherProcess, CannotBeOpenedAfterItsCreatorWasKilledEvenBeforeItIsReaped) {
    creator_.Kill();
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(creator_.Pid()), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(OpenerFailure(), kGone);

    (void)creator_.Wait();
    EXPECT_EQ(OpenerFailure(), kGone);
}

TEST_F(ABlockOfAnotherProcess, IsReplacedByTheNextWriterWithASize) {
    const SharedMemoryMetadata before = Record();
    creator_.Kill();
    (void)creator_.Wait();

    const auto block = Creator(50);

    EXPECT_EQ(block->Size(), 50U);
    EXPECT_EQ(DataOf(*block), std::string(50, '\0'));
    EXPECT_EQ(Record().pid, ::getpid());
    EXPECT_NE(Record().uid, before.uid);
    EXPECT_EQ(Opener()->Size(), 50U);
}

TEST_F(ABlockOfAnotherProcess, GoesOnForThoseWhoHaveItOpenWhenItsCreatorIsGone) {
    const auto reader = Opener();
    const auto writer = Creator(0);
    creator_.Kill();
    (void)creator_.Wait();

    Put(*writer, "world");
    EXPECT_EQ(DataOf(*reader).substr(0, 6), std::string("world\0", 6));
    EXPECT_EQ(OpenerFailure(), kGone);

    const auto fresh = Creator(50);
    Put(*fresh, "fresh");
    EXPECT_EQ(DataOf(*reader).substr(0, 5), "world") << "another memory";
    EXPECT_EQ(DataOf(*Opener()), "fresh" + std::string(45, '\0'));
    fresh->LockForWrite();
    EXPECT_FALSE(reader->TryLockForRead()) << "but the same lock";
    fresh->UnlockForWrite();
}

TEST_F(ABlockOfAnotherProcess, IsWaitedForWhileItIsBeingMade) {
    const UniqueBlockName name;
    ChildProcess slow([&name](const Conversation& parent) {
        // What a creator does first: it holds the lock while the block is not ready.
        LockFileIOBase<SharedMemoryMetadata> lock(name.LockPath());
        lock.LockExclusive();
        parent.Say("locked");
        (void)parent.Hear();
        lock.UnlockExclusive();
        const SharedMemoryBlock block(std::make_shared<Sys>(), name.Name(), true, 77);
        parent.Say("made");
        (void)parent.Hear();
        return 0;
    });
    ASSERT_EQ(slow.Hear(), "locked");
    ChildProcess opener([&name](const Conversation& parent) {
        parent.Say("opening");
        parent.Say(Thrown([&name] { SharedMemoryBlockReader reader(name.Name()); }));
        return 0;
    });
    ASSERT_EQ(opener.Hear(), "opening");
    EXPECT_TRUE(AwaitBlocked(opener.Pid(), SYS_flock));

    slow.Say("go on");
    ASSERT_EQ(slow.Hear(), "made");
    // Which of the two came first is open; either way nothing half-made was seen.
    EXPECT_THAT(opener.Hear(),
                ::testing::AnyOf("nothing thrown",
                                 "failed to open shared memory: failed to read lockFile to get "
                                 "metadata"));
}

TEST_F(ABlockOfAnotherProcess, CarriesWhatOneHandleWritesToAnother) {
    const UniqueBlockName name;
    ChildProcess reading([&name](const Conversation& parent) {
        (void)parent.Hear();
        SharedMemoryBlockReader reader(name.Name());
        parent.Say(std::to_string(reader.Size()));
        (void)parent.Hear();
        reader.Lock();
        parent.Say(std::string(reinterpret_cast<const char*>(reader.GetData()), 5));
        reader.Unlock();
        return 0;
    });
    SharedMemoryBlockWriter writer(name.Name(), 123);
    reading.Say("open");
    EXPECT_EQ(reading.Hear(), "123");
    writer.LockForWrite();
    std::memcpy(writer.GetDataForWrite(), "hello", 5);
    writer.UnlockForWrite();
    reading.Say("read");
    EXPECT_EQ(reading.Hear(), "hello");
    EXPECT_EQ(reading.ExitCode(), 0);
}

}  // namespace
}  // namespace qel::test
