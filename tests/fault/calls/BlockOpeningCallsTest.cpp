// Blocks whose system calls are refused while they are created, attached to and opened.

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "BlockScenario.h"
#include "Explorer.h"

namespace qel::test {
namespace {

/// How the lock file is found.
enum class Before { Missing, Empty, Short, Long, StaleRecord, NegativeDescriptor, LiveBlock };

class Opening : public BlockScenario {
public:
    Opening(const World& world, Before before) : BlockScenario(world), before_(before) {}

    void Prepare() override {
        switch (before_) {
            case Before::Missing:
                break;
            case Before::Empty:
                WriteFile(names_.block.LockPath(), "");
                break;
            case Before::Short:
                WriteFile(names_.block.LockPath(), std::string(16, '\0'));
                break;
            case Before::Long:
                WriteFile(names_.block.LockPath(), std::string(100, '\0'));
                break;
            case Before::StaleRecord:
                MakeCreator();
                creator_.reset();
                break;
            case Before::NegativeDescriptor:
                WriteFile(names_.block.LockPath(),
                          "\1" + std::string(7, '\0') + std::string(32, '\xff'));
                break;
            case Before::LiveBlock:
                MakeCreator();
                break;
        }
    }
    void Construct() override { NoteDescriptors(); }

private:
    Before before_;
};

/// A writer; of 1000 bytes unless told otherwise.
class Writing : public Opening {
public:
    Writing(const World& world, Before before, std::uint64_t size = kSize)
        : Opening(world, before), size_(size) {}

    std::string Run() override {
        writer_ = std::make_unique<SharedMemoryBlockWriter>(sys_, names_.block.Name(), size_);
        return "size " + std::to_string(writer_->Size());
    }
    void Destroy() override { writer_.reset(); }

private:
    std::uint64_t size_;
    std::unique_ptr<SharedMemoryBlockWriter> writer_;
};

class Reading : public Opening {
public:
    using Opening::Opening;

    std::string Run() override {
        reader_ = std::make_unique<SharedMemoryBlockReader>(sys_, names_.block.Name());
        return "size " + std::to_string(reader_->Size());
    }
    void Destroy() override { reader_.reset(); }

private:
    std::unique_ptr<SharedMemoryBlockReader> reader_;
};

using Rows = std::vector<Row>;

Rows operator+(Rows rows, const Rows& more) {
    rows.insert(rows.end(), more.begin(), more.end());
    return rows;
}

Outcome Fails(const std::string& text) {
    return Throws(text).State("not locked");
}

/// A lock file that cannot be opened: whoever asks is told why.
Outcome NoLockFile(const std::string& state) {
    return Throws("LockFile could not be opened{errno}({strerror})")
        .LogsOfLockFile(4, "LockFileBase", "Failed to open lock file: {LOCK}")
        .State(state);
}

Rows LockFileRows(const std::string& before = "not locked") {
    return {At(kLockOpen, NoLockFile(before)), At(kLockStat, NoLockFile("not locked"))};
}

/// A lock file that is there and as long as it should be.
Rows FoundLockFileRows() {
    return LockFileRows() + Rows{At(kLockMap, NoLockFile("not locked"))};
}

Outcome WrongLength() {
    const std::string text = "Failed to truncate lock file to correct length";
    return Fails(text).LogsOfLockFile(3, "LockFileIOBase", text);
}

Row NotLocked(const std::string& call, const std::string& operation) {
    const std::string text = operation + " failed to lock {LOCK}, fd:{lock}: {strerror}";
    return At(call, Fails(text).LogsOfLockFile(3, operation, text));
}

/// A writer's lock that cannot be given back is tried once more when its lock file ends, which is
/// no place to throw from.
Row NotUnlockedByAWriter() {
    return At(kFlockUnlock, NotUnlocked().State("not locked")).Ever(EndsProcess());
}

/// The end of every construction.
Rows ProtectingRows() {
    return {At(kProtect, NotProtected().State("not locked"))};
}

/// Steps of finding the memory, with what `failed` makes of their reasons.
Rows FindingRows(const std::string& openFlags, const std::string& protection,
                 const std::function<Outcome(const std::string&)>& failed) {
    return {
        At("stat(ANNOUNCED)", failed("file does not exist")),
        At("open(ANNOUNCED, " + openFlags + ", 0)", failed("Failed to open{file}")),
        At("fstat(MEMORY)",
           failed("could not fstat the shared memory file for validation: {strerror}")),
        At("pread(MEMORY, 8, 0)", failed("failed to read metadata from shared memory")),
        At("fcntl(MEMORY, 2, " + openFlags + ")",
           failed("failed to set shared memory mode flags: {strerror}")),
        At("mmap(1008, " + protection + ", 1, MEMORY, 0)", failed("failed to map shared memory")),
    };
}

Outcome NotOpened(const std::string& reason) {
    return Fails("failed to open shared memory: " + reason);
}

Outcome NotCreated(const std::string& reason) {
    return Fails("failed to create shared memory: " + reason);
}

/// Steps of making the memory.
Rows CreatingRows() {
    return {
        At("memfd_create(/BLOCK.shm, 2)",
           NotCreated("SYS_memfd_create failed for name {BLOCK}got errno({errno}):{strerror}")),
        At("fstat(MEMORY)", NotCreated("fstat failed for fd:{memory} name:{BLOCK}: {strerror}")),
        At("ftruncate(MEMORY, 1008)", NotCreated("failed to ftruncate shared memory")),
        At("mmap(1008, 3, 1, MEMORY, 0)", NotCreated("failed to map shared memory\n")),
    };
}

/// The steps of a writer around those that find or make the memory.
Row NotLockedByAWriter() {
    return NotLocked(kFlockExclusive, "LockExclusive");
}

Rows WriterEndRows() {
    return Rows{NotUnlockedByAWriter()} + ProtectingRows();
}

Outcome Made() {
    return Returns("size 1000").State("not locked");
}

Table TableOf(const Rows& rows) {
    return {Made(), rows + EndingRows(Made()), {}, {}, true};
}

/// A lock file that gets its length first.
Rows SizingRows() {
    return {At(kLockRoom, WrongLength()), At(kLockSize, WrongLength()),
            At(kLockMap, WrongLength())};
}

/// The warning that a lock file without a record is worth.
Outcome Unset(const Outcome& outcome) {
    return outcome.LogsOfLockFile(4, "Read",
                                  "tried to read lock file {LOCK} value but no value has been set");
}

/// A block that is created over a lock file without a record, which is made usable by `sizing`.
Table FreshTable(const Rows& sizing) {
    Rows unset = CreatingRows() + WriterEndRows();
    for (Row& row : unset) {
        row.once = Unset(row.once);
    }
    return {Unset(Made()),
            sizing + Rows{NotLockedByAWriter()} + unset + EndingRows(Unset(Made())),
            {},
            {},
            true};
}

/// The old mapping of a lock file that has got its length.
Rows OldMappingRows(const std::string& length) {
    return {At("mmap(" + length + ", 3, 1, LOCK, 0)", NoLockFile("not locked")),
            At("munmap(" + length + ")", Unset(Made())).Ever(NotUnmapped(Unset(Made())))};
}

Table WithRoomTaken(Table table) {
    table.retriedAfterSignals.emplace_back(kLockRoom);
    return table;
}

TEST(RefusedCallsOfABlock, WhenItIsCreated) {
    Explore(Make<Writing>(Before::Missing),
            WithRoomTaken(FreshTable(LockFileRows("no lock file") + SizingRows())));
}

TEST(RefusedCallsOfABlock, WhenItIsCreatedOverAnEmptyLockFile) {
    Explore(Make<Writing>(Before::Empty), WithRoomTaken(FreshTable(LockFileRows() + SizingRows())));
}

TEST(RefusedCallsOfABlock, WhenItIsCreatedOverAShortLockFile) {
    Explore(Make<Writing>(Before::Short),
            WithRoomTaken(FreshTable(LockFileRows() + SizingRows() + OldMappingRows("16"))));
}

TEST(RefusedCallsOfABlock, WhenItIsCreatedOverALongLockFile) {
    Explore(Make<Writing>(Before::Long),
            FreshTable(LockFileRows() + OldMappingRows("100") +
                       Rows{At(kLockSize, WrongLength()), At(kLockMap, WrongLength())}));
}

TEST(RefusedCallsOfABlock, WhenItIsCreatedOverAStaleRecord) {
    Explore(Make<Writing>(Before::StaleRecord),
            TableOf(FoundLockFileRows() + Rows{At("stat(ANNOUNCED)", Made())} + CreatingRows() +
                    Rows{NotLockedByAWriter()} + WriterEndRows()));
}

TEST(RefusedCallsOfABlock, WhenItIsCreatedOverARecordWithoutADescriptor) {
    Explore(Make<Writing>(Before::NegativeDescriptor),
            TableOf(FoundLockFileRows() + CreatingRows() + Rows{NotLockedByAWriter()} +
                    WriterEndRows()));
}

TEST(RefusedCallsOfABlock, WhenAWriterAttachesToIt) {
    Explore(Make<Writing>(Before::LiveBlock, std::uint64_t{0}),
            TableOf(FoundLockFileRows() + FindingRows("524290", "3", NotOpened) +
                    Rows{NotLockedByAWriter()} + WriterEndRows()));
}

TEST(RefusedCallsOfABlock, WhenAReaderOpensIt) {
    Explore(Make<Reading>(Before::LiveBlock),
            TableOf(FoundLockFileRows() + FindingRows("524288", "1", NotOpened) +
                    Rows{NotLocked(kFlockShared, "LockShared"),
                         At(kFlockUnlock, NotUnlocked().State("not locked"))} +
                    ProtectingRows()));
}

TEST(RefusedCallsOfABlock, WhenAReaderComesBeforeAWriter) {
    const auto missing = NotOpened("failed to read lockFile to get metadata")
                             .LogsOfLockFile(4, "Read",
                                             "tried to read lock file {LOCK} value but no value "
                                             "has been set");
    Table table{
        missing,
        LockFileRows("no lock file") + SizingRows() + Rows{NotLocked(kFlockShared, "LockShared")},
        {kLockRoom},
        {kFlockUnlock, kLockUnmap, kLockClose}};
    Explore(Make<Reading>(Before::Missing), table, {Route::Direct});
}

/// A writer with a size of its own finds a live block. If that cannot be opened it makes a new one.
TEST(RefusedCallsOfABlock, WhenAWriterThatWouldCreateAttachesToIt) {
    const auto replaced = [](const std::string& /*reason*/) {
        return Returns("size 50").State("not locked");
    };
    Rows finding = FindingRows("524290", "3", replaced);
    for (Row& row : finding) {
        if (row.call == "fstat(MEMORY)") {
            row = row.Ever(NotCreated("fstat failed for fd:{memory} name:{BLOCK}: {strerror}"));
        }
        if (row.call.rfind("mmap", 0) == 0) {
            row = row.Ever(NotCreated("failed to map shared memory\n"));
        }
    }
    Table table =
        TableOf(FoundLockFileRows() + finding + Rows{NotLockedByAWriter()} + WriterEndRows());
    table.givesUp = false;  // it makes another one
    Explore(Make<Writing>(Before::LiveBlock, std::uint64_t{50}), table);
}

}  // namespace
}  // namespace qel::test
