#include "Finding.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "ChildProcess.h"
#include "LockFileImpl.h"
#include "Scenes.h"
#include "SharedMemoryMetadata.h"
#include "Sys.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kFreshSize = 20;

/// Throws unless every kind of lock is given, with and without waiting.
void TakeEveryLock(const std::string& name) {
    LockFileIOBase<SharedMemoryMetadata> lock(BlockLockPath(name));
    if (!lock.TryLockShared()) {
        throw std::runtime_error("the shared lock is not free");
    }
    lock.UnlockShared();
    if (!lock.TryLockExclusive()) {
        throw std::runtime_error("the exclusive lock is not free");
    }
    lock.UnlockExclusive();
    lock.LockShared();
    lock.UnlockShared();
    lock.LockExclusive();
    lock.UnlockExclusive();
}

std::unique_ptr<SharedMemoryBlock> Construct(const std::string& name, bool create,
                                             std::uint64_t size) {
    return std::make_unique<SharedMemoryBlock>(std::make_shared<Sys>(), name, create, size);
}

template <typename Action>
std::string TextOf(const Action& action) {
    try {
        return action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

}  // namespace

void SetSafetyAlarm() {
    ::alarm(120);
}

bool IsRefusalOfStaleRecord(const std::string& text) {
    const std::string_view prefix = "failed to open shared memory: ";
    if (text.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    const std::string reason = text.substr(prefix.size());
    return reason == "file does not exist" || reason.compare(0, 20, "Failed to open/proc/") == 0 ||
           reason == "shared memory is too small" ||
           reason == "failed to read metadata from shared memory" ||
           reason.find(", assuming stale file descriptor") != std::string::npos;
}

std::string DataInWords(SharedMemoryBlock& block) {
    block.LockForRead();
    const std::string data(reinterpret_cast<const char*>(block.GetDataForRead()), block.Size());
    block.UnlockForRead();
    if (data == std::string(kFreshSize, '\0')) {
        return "fresh";
    }
    const std::size_t written = std::min(data.find_first_not_of(kNew), data.size());
    if (data.size() != kDataSize || data.find_first_not_of(kOld, written) != std::string::npos) {
        return "not what anybody has written";
    }
    switch (written) {
        case 0:
            return "data as before";
        case 1:
            return "data torn: one byte is new";
        case kDataSize / 2:
            return "data torn: the first half is new";
        case kDataSize:
            return "data all new";
        default:
            return "not what anybody has written";
    }
}

namespace {

std::string HowToSeeRefusal(const Remains& remains) {
    const std::string command = "`qev block show NAME`: ";
    if (!remains.file) {
        return command + "`there is no block NAME`";
    }
    if (!remains.record) {
        return command + "`record none`";
    }
    if (remains.isPartlyNew) {
        return command + "`creator gone` or `the record is stale`";
    }
    return command + (remains.creatorLives ? "`the record is stale`" : "`creator gone`");
}

}  // namespace

void Tell(Outcome& outcome, const Finding& found, const Remains& remains) {
    const bool opens = found.creating != "fresh";
    const bool torn = found.opening.find("torn") != std::string::npos;
    if (opens) {
        outcome.next = "the block, " + found.opening;
        outcome.see = torn ? "only in the data: mark in it that it is being written" : "-";
        outcome.right = torn ? "write the data anew" : "-";
        return;
    }
    const std::string refusal = remains.isPartlyNew
                                    ? "the refusal of a stale record, which one the "
                                      "bytes decide"
                                    : "`" + found.opening + "`";
    outcome.next = refusal + "; a writer with a size makes a fresh block";
    outcome.see = HowToSeeRefusal(remains);
    outcome.right = "start a writer with a size";
    if (!remains.survivorsData.empty()) {
        outcome.next += "; survivors keep the old one, " + remains.survivorsData;
        outcome.right += ", restart the survivors";
        if (remains.survivorsData.find("torn") != std::string::npos) {
            outcome.right += " or write the data anew";
        }
    }
}

Finding FindNext(const std::string& name) {
    ChildProcess process([&name](const Conversation& parent) {
        SetSafetyAlarm();
        parent.Say(TextOf([&] {
            TakeEveryLock(name);
            return std::string("free");
        }));
        parent.Say(TextOf([&] { return DataInWords(*Construct(name, false, 0)); }));
        parent.Say(TextOf([&] { return DataInWords(*Construct(name, true, 0)); }));
        parent.Say(TextOf([&] { return DataInWords(*Construct(name, true, kFreshSize)); }));
        return 0;
    });
    Finding found{process.Hear(), process.Hear(), process.Hear(), process.Hear()};
    return process.ExitCode() == 0 ? found : Finding{"never given", {}, {}, {}};
}

}  // namespace qel::test
