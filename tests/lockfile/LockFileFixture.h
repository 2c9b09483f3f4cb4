#pragma once

#include <gmock/gmock.h>
#include <sys/file.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CallFaults.h"
#include "CapturedLog.h"
#include "Files.h"
#include "LockFileImpl.h"
#include "ProcessState.h"
#include "Thrown.h"
#include "UniqueBlockName.h"

namespace qel::test {

/// A record as long as the one that blocks store.
using Record = std::array<unsigned char, 32>;

/// A lock file whose state can be seen and, for what no operation does, set.
class OpenLockFile : public LockFileIOBase<Record> {
public:
    using LockFileIOBase<Record>::LockFileIOBase;

    [[nodiscard]] int SharedHolders() const { return sharedHolders_; }
    [[nodiscard]] bool Exclusive() const { return exclusive_; }
    [[nodiscard]] bool Process() const { return process_; }
    [[nodiscard]] const MappedFile& File() const { return file_; }
    [[nodiscard]] int Descriptor() const { return file_.Descriptor().Get(); }
    [[nodiscard]] bool Resize(std::uint64_t length) { return file_.TruncateTo(length); }
    void CloseFile() { file_.Close(); }
    /// A `flock` of the whole process, as a host of the template may take it.
    void LockProcess() { process_ = ::flock(Descriptor(), LOCK_EX) == 0; }
};

/// A path of its own, with the calls on it and the log records recorded.
class LockFileTest : public ::testing::Test {
protected:
    LockFileTest() { faults_.Alias(path_, "FILE"); }

    /// Makes the object of the test, and forgets the calls of that.
    OpenLockFile& Make() {
        lock_.emplace(path_);
        faults_.ForgetCalls();
        return *lock_;
    }
    /// Makes one that could not be opened.
    OpenLockFile& MakeUnusable() {
        lock_.emplace("/tmp/qev-test-missing/" + name_.Name());
        log_.Forget();
        return *lock_;
    }
    /// What a failed lock operation says.
    [[nodiscard]] std::string LockFailure(const std::string& operation,
                                          const std::string& reason) const {
        return operation + " failed to lock " + path_ +
               ", fd:" + std::to_string(lock_->Descriptor()) + ": " + reason;
    }
    [[nodiscard]] std::vector<std::string> Flocks() const { return faults_.Calls("flock"); }

    /// `action` throws `text` and logs the same for `operation`, once.
    template <typename Action>
    void ExpectFails(const Action& action, const std::string& operation, const std::string& text) {
        log_.Forget();
        EXPECT_EQ(Thrown(action), text);
        ExpectLogged(LogLevel::Error, operation, text);
    }
    /// `action` throws `text` and logs nothing.
    template <typename Action>
    void ExpectFailsUnlogged(const Action& action, const std::string& text) {
        log_.Forget();
        EXPECT_EQ(Thrown(action), text);
        EXPECT_TRUE(log_.Records().empty());
    }
    void ExpectLogged(LogLevel level, const std::string& operation, const std::string& text) const {
        ASSERT_EQ(log_.Records().size(), 1U);
        const LogRecord& record = log_.Records().front();
        EXPECT_EQ(record.level, level);
        EXPECT_EQ(static_cast<int>(record.category), 0x8027);
        EXPECT_EQ(record.sourcePath, "common/lib/LockFile/include/LockFileImpl");
        EXPECT_EQ(record.operation, operation);
        EXPECT_GT(record.line, 0U);
        EXPECT_EQ(record.text, text);
    }
    /// Nothing is held by the object, and every kind of lock can be taken.
    void ExpectFree() {
        EXPECT_EQ(LockOn(path_), Held::No);
        EXPECT_FALSE(lock_->Exclusive());
        ASSERT_TRUE(lock_->TryLockExclusive());
        lock_->UnlockExclusive();
        ASSERT_TRUE(lock_->TryLockShared());
        EXPECT_EQ(lock_->SharedHolders(), 1);
        lock_->UnlockShared();
        EXPECT_EQ(LockOn(path_), Held::No);
    }

    UniqueBlockName name_;
    std::string path_ = name_.LockPath();
    CapturedLog log_;
    CallFaults faults_;
    std::optional<OpenLockFile> lock_;
};

/// Names of the lock and unlock operations, to run a test over them.
struct Operation {
    const char* name;
    void (*run)(OpenLockFile&);
};

inline const std::vector<Operation>& LockOperations() {
    static const std::vector<Operation> operations = {
        {"LockShared", [](OpenLockFile& lock) { lock.LockShared(); }},
        {"LockExclusive", [](OpenLockFile& lock) { lock.LockExclusive(); }},
        {"TryLockShared", [](OpenLockFile& lock) { (void)lock.TryLockShared(); }},
        {"TryLockExclusive", [](OpenLockFile& lock) { (void)lock.TryLockExclusive(); }},
    };
    return operations;
}

inline const std::vector<Operation>& UnlockOperations() {
    static const std::vector<Operation> operations = {
        {"UnlockShared", [](OpenLockFile& lock) { lock.UnlockShared(); }},
        {"UnlockExclusive", [](OpenLockFile& lock) { lock.UnlockExclusive(); }},
        {"UnlockProcess", [](OpenLockFile& lock) { lock.UnlockProcess(); }},
    };
    return operations;
}

}  // namespace qel::test
