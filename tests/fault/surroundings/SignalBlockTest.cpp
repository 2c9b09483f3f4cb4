// A thousand signals a second to a process that waits for the lock of a block. The wait is not
// repeated after a signal unless the handler asks for it.

#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "Attempts.h"
#include "BuildKind.h"
#include "ChildProcess.h"
#include "ProcessState.h"
#include "SignalStorm.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

constexpr int kSignals = 20;

/// What a process uses of a block; some of it is not there yet when that is what it waits for.
struct Handles {
    std::string name;
    std::unique_ptr<SharedMemoryBlockReader> reader;
    std::unique_ptr<SharedMemoryBlockWriter> writer;
};

struct Row {
    const char* name;
    bool isMadeBefore;
    int heldByOther;
    void (*lock)(Handles& handles);
    void (*unlock)(Handles& handles);
    const char* operation;  ///< that fails when it is interrupted; none if it never waits
};

void Open(Handles& handles) {
    handles.reader = std::make_unique<SharedMemoryBlockReader>(handles.name);
    handles.writer = std::make_unique<SharedMemoryBlockWriter>(handles.name);
}

class ALockUnderSignals : public testing::TestWithParam<std::tuple<Row, Interrupted>> {
protected:
    /// Takes the row's lock, again and again if it fails. What is wrong with the failures.
    std::string TakeLock(Handles& handles, const SharedCount& failures, const Row& row) const {
        const std::string expected = (row.operation == nullptr ? "" : row.operation) +
                                     (" failed to lock " + name_.LockPath()) + ", fd:";
        const std::string ending = std::string(": ") + std::strerror(EINTR);
        const CapturedLog log;
        for (;;) {
            try {
                row.lock(handles);
                return "locked";
            } catch (const std::runtime_error& failure) {
                std::string text = failure.what();
                const auto digits = text.find_first_not_of("0123456789", expected.size());
                if (text.compare(0, expected.size(), expected) != 0 ||
                    text.substr(std::min(digits, text.size())) != ending) {
                    return text;
                }
                failures.Add();
            }
        }
    }

    const UniqueBlockName name_;
    SharedMemoryBlockWriter creator_{name_.Name(), kBlockSize};
};

TEST_P(ALockUnderSignals, FailsOrIsRestartedAndWorksWhenItIsFree) {
    const auto& [row, interrupted] = GetParam();
    const bool fails = row.operation != nullptr && interrupted == Interrupted::Fail;
    if (kThreadSanitizer && row.operation != nullptr && !fails) {
        GTEST_SKIP() << kHandlersAreLate;
    }
    const SharedCount signals;
    const SharedCount failures;
    ChildProcess child([&, &row = row, interrupted = interrupted](const Conversation& parent) {
        Handles handles{name_.Name(), nullptr, nullptr};
        if (row.isMadeBefore) {
            Open(handles);
        }
        parent.Say("ready");
        (void)parent.Hear();
        std::string said;
        {
            const SignalStorm storm(interrupted, signals);
            said = TakeLock(handles, failures, row);
            if (said == "locked") {
                row.unlock(handles);
            }
        }
        parent.Say(said);
        return 0;
    });
    ASSERT_EQ(child.Hear(), "ready");
    auto held = std::make_unique<ForeignLock>(name_.LockPath(), row.heldByOther);
    child.Say("lock");
    EXPECT_TRUE(AwaitMore(child, fails ? failures : signals, kSignals));
    held.reset();
    EXPECT_EQ(child.Hear(), "locked");
    EXPECT_EQ(failures.Value() != 0, fails);
    EXPECT_EQ(LockOn(name_.LockPath()), Held::No);
}

INSTANTIATE_TEST_SUITE_P(
    By, ALockUnderSignals,
    testing::Combine(
        testing::Values(
            Row{"LockForRead", true, LOCK_EX, [](Handles& block) { block.reader->Lock(); },
                [](Handles& block) { block.reader->Unlock(); }, "LockShared"},
            Row{"LockForWrite", true, LOCK_SH, [](Handles& block) { block.writer->LockForWrite(); },
                [](Handles& block) { block.writer->UnlockForWrite(); }, "LockExclusive"},
            Row{"TryLock", true, LOCK_EX,
                [](Handles& block) {
                    while (!block.reader->TryLock()) {
                        ::sched_yield();
                    }
                },
                [](Handles& block) { block.reader->Unlock(); }, nullptr},
            Row{"TryLockForWrite", true, LOCK_SH,
                [](Handles& block) {
                    while (!block.writer->TryLockForWrite()) {
                        ::sched_yield();
                    }
                },
                [](Handles& block) { block.writer->UnlockForWrite(); }, nullptr},
            Row{"OpeningAReader", false, LOCK_EX,
                [](Handles& block) {
                    block.reader = std::make_unique<SharedMemoryBlockReader>(block.name);
                },
                [](Handles& block) { block.reader.reset(); }, "LockShared"},
            Row{"OpeningAWriter", false, LOCK_SH,
                [](Handles& block) {
                    block.writer = std::make_unique<SharedMemoryBlockWriter>(block.name);
                },
                [](Handles& block) { block.writer.reset(); }, "LockExclusive"}),
        testing::Values(Interrupted::Fail, Interrupted::Restart)),
    [](const auto& row) {
        return std::get<0>(row.param).name +
               std::string(std::get<1>(row.param) == Interrupted::Fail ? "" : "Restarted");
    });

}  // namespace
}  // namespace qel::test
