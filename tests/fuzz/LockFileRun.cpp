#include "LockFileRun.h"

#include "Ends.h"
#include "Thrown.h"

namespace qel::fuzz {
namespace {

constexpr const char* kNothing = "nothing thrown";

bool IsInRange(std::uint64_t length, std::uint64_t offset) {
    return length <= 32 && offset <= 32 && length + offset <= 32;
}

void RequireText(const std::string& actual, const std::string& expected) {
    if (actual != expected) {
        Fail("\"" + actual + "\" instead of \"" + expected + "\"");
    }
}

}  // namespace

void LockFileRun::Do(Input& input) {
    switch (input.Choice(6)) {
        case 0:
            return Lock(true, input.Flag());
        case 1:
            return Lock(false, input.Flag());
        case 2:
            file_.UnlockShared();
            --shared_;
            return;
        case 3:
            file_.UnlockExclusive();
            exclusive_ = false;
            return;
        case 4:
            return Read(input);
        default:
            return Write(input);
    }
}

/// Waits only for what is free: nobody else is there to give it back.
void LockFileRun::Lock(bool isShared, bool mayWait) {
    const bool isFree = !exclusive_ && (isShared || shared_ < 1);
    if (mayWait && isFree) {
        isShared ? file_.LockShared() : file_.LockExclusive();
    } else {
        const bool taken = isShared ? file_.TryLockShared() : file_.TryLockExclusive();
        Require(taken == isFree, "a lock is taken if it is free");
    }
    if (isFree && isShared) {
        shared_ = std::max(shared_, 0) + 1;
    } else if (isFree) {
        exclusive_ = true;
    }
}

void LockFileRun::Read(Input& input) {
    const std::uint64_t length = input.Edge(32);
    const std::uint64_t offset = input.Edge(32);
    Bytes bytes(length <= 32 ? length : 0);
    bytes.shrink_to_fit();
    bool isRead = false;
    const std::string text =
        test::Thrown([&] { isRead = file_.Read(bytes.data(), length, offset); });
    if (shared_ < 1 && !exclusive_) {
        return RequireText(text, "Read called while not locked");
    }
    if (!IsInRange(length, offset)) {
        return RequireText(text, "Read out of range for type");
    }
    RequireText(text, kNothing);
    Require(isRead == (image_[0] != 0), "a record is read if one is set");
    Require(!isRead || std::equal(bytes.begin(), bytes.end(), image_.data() + 8 + offset),
            "the record's bytes are read");
}

void LockFileRun::Write(Input& input) {
    const std::uint64_t length = input.Edge(32);
    const std::uint64_t offset = input.Edge(32);
    Bytes bytes = input.TakeBytes(length <= 32 ? length : 0);
    bytes.shrink_to_fit();
    bool isWritten = false;
    const std::string text =
        test::Thrown([&] { isWritten = file_.Write(bytes.data(), length, offset); });
    if (!exclusive_) {
        return RequireText(text, "Write called while not locked for write");
    }
    if (!IsInRange(length, offset)) {
        return RequireText(text, "Write out of range for type");
    }
    RequireText(text, kNothing);
    Require(isWritten, "a record is written");
    std::copy(bytes.begin(), bytes.end(), image_.data() + 8 + offset);
    image_[0] = 1;
}

}  // namespace qel::fuzz
