#include "BlockHandle.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Ends.h"
#include "FileDescriptor.h"
#include "Thrown.h"

namespace qel::fuzz {
namespace {

using test::Held;

constexpr const char* kNothing = "nothing thrown";
constexpr const char* kAnotherReader =
    "Exception: UnlockForRead called from a different thread than the thread that locked it";
constexpr const char* kAnotherWriter =
    "Exception: UnlockForWrite called from a different thread than the thread that locked it";

void RequireText(const std::string& actual, const std::string& expected) {
    if (actual != expected) {
        Fail("\"" + actual + "\" instead of \"" + expected + "\"");
    }
}

/// Fails unless `action` reports that it would wait for its own thread.
template <typename Action>
void RequireDeadlock(const Action& action) {
    try {
        action();
    } catch (const std::system_error& error) {
        return Require(error.code().value() == EDEADLK, "a deadlock is reported as such");
    }
    Fail("a thread waits for itself");
}

/// The kernel copies from and to the byte, and reports where a program would fault.
bool IsAccessible(const unsigned char* byte, bool forWriting) {
    static const FileDescriptor file(::memfd_create("qev-fuzz", MFD_CLOEXEC));
    const bool isReadable = ::pwrite(file.Get(), byte, 1, 0) == 1;
    return forWriting
               ? isReadable && ::pread(file.Get(), const_cast<unsigned char*>(byte), 1, 0) == 1
               : isReadable;
}

}  // namespace

void BlockHandle::LockForRead(bool mayWait, Held others) {
    const auto wait = [this] { reader_ ? reader_->Lock() : writer_->LockForRead(); };
    const bool isFree = shared_ > 0 || others != Held::Exclusive;
    if (mayWait && exclusive_) {
        return RequireDeadlock(wait);
    }
    if (mayWait && isFree) {
        wait();
    } else {
        const bool taken = reader_ ? reader_->TryLock() : writer_->TryLockForRead();
        Require(taken == (isFree && !exclusive_), "a lock for reading is taken if it is free");
        if (!taken) {
            return;
        }
    }
    held_ = shared_ > 0 ? held_ : Held::Shared;
    ++shared_;
    isReader_ = true;
    mayRead_ = true;
}

void BlockHandle::UnlockForRead() {
    const std::string text =
        test::Thrown([this] { reader_ ? reader_->Unlock() : writer_->UnlockForRead(); });
    RequireText(text, isReader_ ? kNothing : kAnotherReader);
    if (!isReader_) {
        return;
    }
    isReader_ = false;
    mayRead_ = false;
    --shared_;
    held_ = shared_ < 1 ? Held::No : held_;
}

void BlockHandle::LockForWrite(bool mayWait, Held others) {
    if (!writer_) {
        return;
    }
    const auto wait = [this] { writer_->LockForWrite(); };
    if (mayWait && exclusive_) {
        return RequireDeadlock(wait);
    }
    const bool isFree = !exclusive_ && shared_ == 0 && others == Held::No;
    if (mayWait && isFree) {
        wait();
    } else {
        Require(writer_->TryLockForWrite() == isFree, "a lock for writing is taken if it is free");
        if (!isFree) {
            return;
        }
    }
    exclusive_ = isWriter_ = mayRead_ = mayWrite_ = true;
    held_ = Held::Exclusive;
}

void BlockHandle::UnlockForWrite() {
    if (!writer_) {
        return;
    }
    RequireText(test::Thrown([this] { writer_->UnlockForWrite(); }),
                isWriter_ ? kNothing : kAnotherWriter);
    if (isWriter_) {
        exclusive_ = mayRead_ = mayWrite_ = false;
        held_ = Held::No;
    }
}

const unsigned char* BlockHandle::DataForRead() const {
    return reader_ ? reader_->GetData() : writer_->GetDataForRead();
}

void BlockHandle::ReadData() {
    Require((reader_ ? reader_->Size() : writer_->Size()) == content_->size(), "the block's size");
    const unsigned char* data = nullptr;
    RequireText(test::Thrown([&] { data = DataForRead(); }),
                isReader_ ? kNothing : "GetDataForRead called without proper locking");
    data_ = isReader_ ? data : data_;
    if (isReader_ && mayRead_) {
        Require(std::equal(content_->begin(), content_->end(), data), "what was written is read");
    }
}

void BlockHandle::WriteData(Input& input) {
    if (!writer_) {
        return;
    }
    unsigned char* data = nullptr;
    RequireText(test::Thrown([&] { data = writer_->GetDataForWrite(); }),
                isWriter_ ? kNothing : "GetDataForWrite called without proper locking");
    data_ = isWriter_ ? data : data_;
    if (isWriter_ && mayWrite_ && !content_->empty()) {
        const std::size_t place = input.Take<std::uint16_t>() % content_->size();
        data[place] = content_->at(place) = input.Take<std::uint8_t>();
    }
}

void BlockHandle::CompareAccess() const {
    if (data_ == nullptr) {
        return;
    }
    // The eight bytes ahead of the data are there in any block.
    const unsigned char* const byte = data_ - 1;
    Require(IsAccessible(byte, false) == mayRead_, "memory can be read under a lock only");
    Require(IsAccessible(byte, true) == mayWrite_, "memory can be written under its lock only");
}

}  // namespace qel::fuzz
