// Blocks whose system calls are refused while they are locked, unlocked and ended.

#include <gtest/gtest.h>

#include <cerrno>

#include "BlockScenario.h"
#include "Explorer.h"
#include "Thrown.h"

namespace qel::test {
namespace {

constexpr const char* kProtectForReading = "mprotect(1008, 1)";

/// A handle on a live block of somebody else's. The state tells, beside how the lock file is
/// locked, whether this thread is given the data, as one that has the lock.
template <typename Handle>
class WithHandle : public BlockScenario {
public:
    using BlockScenario::BlockScenario;

    void Prepare() override { MakeCreator(); }
    void Construct() override {
        NoteDescriptors();
        handle_ = std::make_unique<Handle>(sys_, names_.block.Name());
    }
    void Destroy() override { handle_.reset(); }
    [[nodiscard]] bool CanRecover() const override { return true; }
    std::string State() override {
        return BlockScenario::State() + (GivesData() ? ", gives data" : "");
    }

protected:
    /// True if this thread gets the pointer to the data.
    [[nodiscard]] virtual bool GivesData() const { return false; }
    template <typename Getter>
    static bool Succeeds(const Getter& getter) {
        return Thrown(getter) == "nothing thrown";
    }
    [[nodiscard]] Handle& Block() const { return *handle_; }

private:
    std::unique_ptr<Handle> handle_;
};

enum class How { Wait, Try };

/// Reads through a reader's handle.
class Reading : public WithHandle<SharedMemoryBlockReader> {
public:
    Reading(const World& world, How how) : WithHandle(world), how_(how) {}

    std::string Run() override {
        if (how_ == How::Wait) {
            Block().Lock();
        } else if (!Block().TryLock()) {
            return "not free";
        }
        std::string content(reinterpret_cast<const char*>(Block().GetData()));
        Block().Unlock();
        return content;
    }
    std::string Recover() override {
        if (GivesData()) {
            Block().Unlock();  // a refused protection leaves the lock with its thread
        }
        return Run();
    }

protected:
    [[nodiscard]] bool GivesData() const override {
        return Succeeds([this] { (void)Block().GetData(); });
    }

private:
    How how_;
};

/// The same through a writer's handle.
class ReadingAsAWriter : public WithHandle<SharedMemoryBlockWriter> {
public:
    ReadingAsAWriter(const World& world, How how) : WithHandle(world), how_(how) {}

    std::string Run() override {
        if (how_ == How::Wait) {
            Block().LockForRead();
        } else if (!Block().TryLockForRead()) {
            return "not free";
        }
        std::string content(reinterpret_cast<const char*>(Block().GetDataForRead()));
        Block().UnlockForRead();
        return content;
    }
    std::string Recover() override {
        if (GivesData()) {
            Block().UnlockForRead();
        }
        return Run();
    }

protected:
    [[nodiscard]] bool GivesData() const override {
        return Succeeds([this] { (void)Block().GetDataForRead(); });
    }

private:
    How how_;
};

/// Looks at the data under a write lock.
class Writing : public WithHandle<SharedMemoryBlockWriter> {
public:
    Writing(const World& world, How how) : WithHandle(world), how_(how) {}

    std::string Run() override {
        if (how_ == How::Wait) {
            Block().LockForWrite();
        } else if (!Block().TryLockForWrite()) {
            return "not free";
        }
        std::string content(reinterpret_cast<const char*>(Block().GetDataForWrite()));
        Block().UnlockForWrite();
        return content;
    }
    std::string Recover() override {
        if (GivesData()) {
            Block().UnlockForWrite();
        } else if (State() == "locked exclusively") {
            // Refused on the way in: nobody is the writer yet, so only the handle's end unlocks.
            EXPECT_EQ(Thrown([this] { Block().UnlockForWrite(); }),
                      "Exception: UnlockForWrite called from a different thread than the thread "
                      "that locked it");
            Destroy();
            Construct();
        }
        return Run();
    }

protected:
    [[nodiscard]] bool GivesData() const override {
        return Succeeds([this] { (void)Block().GetDataForWrite(); });
    }

private:
    How how_;
};

using Rows = std::vector<Row>;

Outcome Locked(const Outcome& outcome, const std::string& how) {
    return outcome.State("locked " + how);
}

Outcome DoneReading() {
    return Returns(BlockScenario::kContent).State("not locked");
}

/// Who has been the writer stays so.
Outcome DoneWriting() {
    return Returns(BlockScenario::kContent).State("not locked, gives data");
}

/// A lock that the system refuses, and one that somebody else has.
Rows LockRows(const std::string& call, const std::string& operation) {
    const std::string text = operation + " failed to lock {LOCK}, fd:{lock}: {strerror}";
    Rows rows = {At(call, Throws(text).LogsOfLockFile(3, operation, text).State("not locked"))};
    if (operation.rfind("Try", 0) == 0) {
        rows.push_back(At(call, Returns("not free").State("not locked")).For({EWOULDBLOCK}));
    }
    return rows;
}

Table TableOf(const Outcome& done, Rows rows, const Rows& more) {
    rows.insert(rows.end(), more.begin(), more.end());
    const Rows ending = EndingRows(done);
    rows.insert(rows.end(), ending.begin(), ending.end());
    return {done, rows, {}, {}};
}

/// Nothing is rolled back; the lock stays, also when it cannot be given back.
Rows ReadingRows() {
    return {At(kProtectForReading, Locked(NotProtected(), "shared, gives data")),
            At(kProtect, Locked(NotProtected(), "shared")),
            At(kFlockUnlock, Locked(NotUnlocked(), "shared"))};
}

/// Nobody is the writer before both bits are set. The exclusive lock is tried once more when the
/// lock file ends, which is no place to throw from.
Rows WritingRows() {
    return {At("mprotect(1008, 2)", Locked(NotProtected(), "exclusively")),
            At("mprotect(1008, 3)", Locked(NotProtected(), "exclusively")),
            At(kProtectForReading, Locked(NotProtected(), "exclusively, gives data")),
            At(kProtect, Locked(NotProtected(), "exclusively, gives data")),
            At(kFlockUnlock, Locked(NotUnlocked(), "exclusively, gives data")).Ever(EndsProcess())};
}

constexpr const char* kTryShared = "flock(LOCK, 5)";
constexpr const char* kTryExclusive = "flock(LOCK, 6)";

TEST(RefusedCallsOfABlocksLock, WhenAReaderReads) {
    Explore(Make<Reading>(How::Wait),
            TableOf(DoneReading(), LockRows(kFlockShared, "LockShared"), ReadingRows()));
}

TEST(RefusedCallsOfABlocksLock, WhenAReaderTries) {
    Explore(Make<Reading>(How::Try),
            TableOf(DoneReading(), LockRows(kTryShared, "TryLockShared"), ReadingRows()));
}

TEST(RefusedCallsOfABlocksLock, WhenAWriterReads) {
    Explore(Make<ReadingAsAWriter>(How::Wait),
            TableOf(DoneReading(), LockRows(kFlockShared, "LockShared"), ReadingRows()));
}

TEST(RefusedCallsOfABlocksLock, WhenAWriterTriesToRead) {
    Explore(Make<ReadingAsAWriter>(How::Try),
            TableOf(DoneReading(), LockRows(kTryShared, "TryLockShared"), ReadingRows()));
}

TEST(RefusedCallsOfABlocksLock, WhenAWriterWrites) {
    Explore(Make<Writing>(How::Wait),
            TableOf(DoneWriting(), LockRows(kFlockExclusive, "LockExclusive"), WritingRows()));
}

TEST(RefusedCallsOfABlocksLock, WhenAWriterTriesToWrite) {
    Explore(Make<Writing>(How::Try),
            TableOf(DoneWriting(), LockRows(kTryExclusive, "TryLockExclusive"), WritingRows()));
}

/// A handle that ends with a lock held.
class EndingReader : public WithHandle<SharedMemoryBlockReader> {
public:
    using WithHandle::WithHandle;

    void Construct() override {
        WithHandle::Construct();
        Block().Lock();
    }
    std::string Run() override { return "held"; }
};

class EndingWriter : public WithHandle<SharedMemoryBlockWriter> {
public:
    using WithHandle::WithHandle;

    void Construct() override {
        WithHandle::Construct();
        Block().LockForWrite();
    }
    std::string Run() override { return "held"; }
};

Table EndingTable(const std::string& how) {
    const auto success = Locked(Returns("held"), how);
    Rows rows = EndingRows(success);
    rows.push_back(At(kFlockUnlock, EndsProcess()));
    return {success, rows, {}, {}};
}

TEST(RefusedCallsOfABlocksLock, WhenAReaderEndsWithItsLock) {
    Explore(Make<EndingReader>(), EndingTable("shared"));
}

TEST(RefusedCallsOfABlocksLock, WhenAWriterEndsWithItsLock) {
    Explore(Make<EndingWriter>(), EndingTable("exclusively"));
}

}  // namespace
}  // namespace qel::test
