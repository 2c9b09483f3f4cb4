#pragma once

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "CapturedOutput.h"
#include "MockSys.h"
#include "NamedSemaphore.h"
#include "Thrown.h"

namespace qel::test {

/// An answer of a system call: sets errno, or leaves it if it is 0, and returns the result.
inline auto Answer(int result, int error = 0) {
    return [result, error](auto&&...) {
        errno = error == 0 ? errno : error;
        return result;
    };
}

/// An answer of sem_getvalue that stores a value.
inline auto AnswerValue(int value, int result = 0, int error = 0) {
    return [value, result, error](sem_t*, int* out) {
        *out = value;
        errno = error == 0 ? errno : error;
        return result;
    };
}

/// Semaphores over system calls that are all foretold.
class SemaphoreFixture : public testing::Test {
protected:
    /// A handle on `semaphore`; the test foretells how it is settled and closed.
    NamedSemaphore Open(sem_t* semaphore) {
        EXPECT_CALL(*sys_, DoSemOpenc).WillOnce(testing::Return(semaphore));
        return NamedSemaphore("/semaphore", sys_, 0);
    }
    NamedSemaphore Open() { return Open(Handle()); }
    /// A handle that has taken, or given, so many units.
    NamedSemaphore OpenAndTake(int units) {
        NamedSemaphore semaphore = Open();
        ExpectWaits(units);
        for (int i = 0; i < units; ++i) {
            semaphore.Wait();
        }
        Verify();
        return semaphore;
    }
    NamedSemaphore OpenAndPost(int units) {
        NamedSemaphore semaphore = Open();
        ExpectPosts(units);
        for (int i = 0; i < units; ++i) {
            semaphore.Post();
        }
        Verify();
        return semaphore;
    }

    /// Foretell so many successful calls.
    void ExpectPosts(int calls) {
        if (calls > 0) {
            EXPECT_CALL(*sys_, DoSemPost(Handle())).Times(calls).WillRepeatedly(Answer(0));
        }
    }
    void ExpectWaits(int calls) {
        if (calls > 0) {
            EXPECT_CALL(*sys_, DoSemWait(Handle())).Times(calls).WillRepeatedly(Answer(0));
        }
    }
    void ExpectTimedWaits(int calls) {
        if (calls > 0) {
            EXPECT_CALL(*sys_, DoSemTimedwait(Handle(), testing::_))
                .Times(calls)
                .WillRepeatedly(Answer(0));
        }
    }
    void ExpectTries(int calls) {
        if (calls > 0) {
            EXPECT_CALL(*sys_, DoSemTryWait(Handle())).Times(calls).WillRepeatedly(Answer(0));
        }
    }
    void ExpectClosing() { EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(0)); }
    /// A handle ends holding `units`: it posts them, and nothing else, and is closed.
    void ExpectGivingBack(int units) {
        const testing::InSequence inOrder;
        ExpectPosts(units);
        ExpectClosing();
    }
    /// Everything foretold so far must have been called by now.
    void Verify() { testing::Mock::VerifyAndClearExpectations(sys_.get()); }

    // Only addresses: nothing behind the mocked calls looks into a semaphore.
    sem_t* Handle() { return &semaphore_; }
    sem_t* OtherHandle() { return &otherSemaphore_; }

    std::shared_ptr<testing::StrictMock<MockSys>> sys_ =
        std::make_shared<testing::StrictMock<MockSys>>();
    CapturedOutput output_;

    // What the end of a handle writes.
    static constexpr const char* kNotReset = "Error: Could not reset sempahore\n";
    static std::string NotClosed(int error) {
        return std::string("Error: Could not close semaphore /semaphoreerr: ") +
               std::strerror(error) + "\n";
    }

private:
    sem_t semaphore_{};
    sem_t otherSemaphore_{};
};

}  // namespace qel::test
