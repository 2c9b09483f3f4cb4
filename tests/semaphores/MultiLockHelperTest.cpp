#include <cstdint>
#include <exception>
#include <type_traits>

#include "SemaphoreFixture.h"
#include "SemaphoreMultiLockHelper.h"

namespace qel::test {
namespace {

using testing::InSequence;
using testing::Throw;

static_assert(std::is_aggregate_v<SemaphoreMultiLockHelper>);
static_assert(std::is_same_v<decltype(SemaphoreMultiLockHelper::semaphore), NamedSemaphore&>);
static_assert(std::is_same_v<decltype(SemaphoreMultiLockHelper::count), std::uint64_t>);
static_assert(sizeof(SemaphoreMultiLockHelper) == sizeof(void*) + sizeof(std::uint64_t));

const std::string kNotUnrolled =
    "SemaphoreMultiLockHelper failed to unroll after exception in lock\n";

/// A failure of a system call that only this test knows.
struct ForeignFailure {
    int number;
};

/// A helper over foretold system calls. The handle's balance is not settled through them: the end
/// of each test lets everything pass.
class MultiLock : public SemaphoreFixture {
protected:
    void TearDown() override {
        Verify();
        EXPECT_CALL(*sys_, DoSemPost).WillRepeatedly(Answer(0));
        EXPECT_CALL(*sys_, DoSemWait).WillRepeatedly(Answer(0));
        EXPECT_CALL(*sys_, DoSemClose).WillRepeatedly(Answer(0));
        semaphore_ = NamedSemaphore();
    }

    NamedSemaphore semaphore_ = Open();
    InSequence inOrder_;
};

TEST_F(MultiLock, OfNoUnitsTouchesNothing) {
    SemaphoreMultiLockHelper none{semaphore_, 0};
    none.Lock();
    EXPECT_TRUE(none.TryLock());
    none.Unlock();
}

TEST_F(MultiLock, OfNoUnitsDoesNotEvenNeedASemaphore) {
    NamedSemaphore empty;
    SemaphoreMultiLockHelper none{empty, 0};
    none.Lock();
    EXPECT_TRUE(none.TryLock());
    none.Unlock();
}

TEST_F(MultiLock, LockTakesAllUnits) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    ExpectWaits(3);
    all.Lock();
}

TEST_F(MultiLock, TryLockTakesAllUnits) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    ExpectTries(3);
    EXPECT_TRUE(all.TryLock());
}

TEST_F(MultiLock, UnlockGivesAllUnitsBackAlsoWithoutALock) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    ExpectPosts(3);
    all.Unlock();
}

TEST_F(MultiLock, HandleSettlesWhatTheHelperHolds) {
    SemaphoreMultiLockHelper all{semaphore_, 2};
    ExpectWaits(2);
    all.Lock();
    ExpectGivingBack(2);
    semaphore_ = NamedSemaphore();
}

TEST_F(MultiLock, CountIsReadAnewAfterEveryUnit) {
    SemaphoreMultiLockHelper all{semaphore_, 1};
    EXPECT_CALL(*sys_, DoSemWait).WillOnce([&](sem_t*) {
        all.count = 3;
        return 0;
    });
    ExpectWaits(2);
    all.Lock();

    EXPECT_CALL(*sys_, DoSemTryWait).WillOnce(Answer(0));
    EXPECT_CALL(*sys_, DoSemTryWait).WillOnce([&](sem_t*) {
        all.count = 2;
        return 0;
    });
    EXPECT_TRUE(all.TryLock());

    EXPECT_CALL(*sys_, DoSemPost).WillOnce([&](sem_t*) {
        all.count = 4;
        return 0;
    });
    ExpectPosts(3);
    all.Unlock();
}

TEST_F(MultiLock, TryLockGivesBackWhatItTookWhenAUnitIsNotFree) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    ExpectTries(2);
    EXPECT_CALL(*sys_, DoSemTryWait).WillOnce(Answer(-1, EAGAIN));
    ExpectPosts(2);
    EXPECT_FALSE(all.TryLock());
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(MultiLock, TryLockGivesNothingBackWhenNoUnitIsFree) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    EXPECT_CALL(*sys_, DoSemTryWait).WillOnce(Answer(-1, EAGAIN));
    EXPECT_FALSE(all.TryLock());
}

TEST_F(MultiLock, TryLockFailsOnAUnitThatIsNotFreeAlsoWhenFewerAreWantedMeanwhile) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    ExpectTries(2);
    EXPECT_CALL(*sys_, DoSemTryWait).WillOnce([&](sem_t*) {
        all.count = 1;
        errno = EAGAIN;
        return -1;
    });
    ExpectPosts(2);
    EXPECT_FALSE(all.TryLock());
}

TEST_F(MultiLock, TryLockPassesAFailureToGiveBackWithoutALine) {
    SemaphoreMultiLockHelper all{semaphore_, 4};
    ExpectTries(3);
    EXPECT_CALL(*sys_, DoSemTryWait).WillOnce(Answer(-1, EAGAIN));
    ExpectPosts(1);
    EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
    EXPECT_EQ(Thrown([&] { (void)all.TryLock(); }),
              std::string("Error sem_post:") + std::strerror(EOVERFLOW));
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(MultiLock, UnlockStopsAtTheFirstFailure) {
    SemaphoreMultiLockHelper all{semaphore_, 3};
    ExpectPosts(1);
    EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
    EXPECT_EQ(Thrown([&] { all.Unlock(); }),
              std::string("Error sem_post:") + std::strerror(EOVERFLOW));
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(MultiLock, OnAnEmptyHandleFailsAsTheHandleDoes) {
    NamedSemaphore empty;
    SemaphoreMultiLockHelper all{empty, 2};
    const std::string failure = "Error: Accessed default constructed NamedSemaphore";
    EXPECT_EQ(Thrown([&] { all.Lock(); }), failure);
    EXPECT_EQ(Thrown([&] { (void)all.TryLock(); }), failure);
    EXPECT_EQ(Thrown([&] { all.Unlock(); }), failure);
    EXPECT_EQ(output_.Text(), "");
}

// What Lock and TryLock do alike when a unit cannot be taken.
struct Taking {
    const char* name;
    void (*take)(SemaphoreMultiLockHelper&);
    bool waits;
    std::string failure;  ///< of a unit, after errno EINVAL
};

class MultiLockFailure : public MultiLock, public testing::WithParamInterface<Taking> {
protected:
    void ExpectTaken(int units) { GetParam().waits ? ExpectWaits(units) : ExpectTries(units); }
    template <typename Action>
    void ExpectFailing(Action action) {
        if (GetParam().waits) {
            EXPECT_CALL(*sys_, DoSemWait).WillOnce(action);
        } else {
            EXPECT_CALL(*sys_, DoSemTryWait).WillOnce(action);
        }
    }
    void ExpectGiveBackFailingAfter(int units) {
        ExpectPosts(units);
        EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
    }
    void Take() { GetParam().take(all_); }

    const std::string notPosted_ = std::string("Error sem_post:") + std::strerror(EOVERFLOW);
    SemaphoreMultiLockHelper all_{semaphore_, 4};
};

TEST_P(MultiLockFailure, IsThrownOnWithNothingTaken) {
    ExpectFailing(Answer(-1, EINVAL));
    EXPECT_EQ(Thrown([&] { Take(); }), GetParam().failure);
    EXPECT_EQ(output_.Text(), "");
}

TEST_P(MultiLockFailure, IsThrownOnAfterAllUnitsAreGivenBack) {
    ExpectTaken(3);
    ExpectFailing(Answer(-1, EINVAL));
    ExpectPosts(3);
    EXPECT_EQ(Thrown([&] { Take(); }), GetParam().failure);
    EXPECT_EQ(output_.Text(), "");
}

TEST_P(MultiLockFailure, IsThrownOnAsItWasWhateverItIs) {
    ExpectTaken(1);
    ExpectFailing(Throw(ForeignFailure{42}));
    ExpectPosts(1);
    try {
        Take();
        FAIL() << "nothing thrown";
    } catch (const ForeignFailure& failure) {
        EXPECT_EQ(failure.number, 42);
    }
}

TEST_P(MultiLockFailure, WithUnitsThatCannotBeGivenBackIsAnExceptionPointerAndANestedException) {
    ExpectTaken(3);
    ExpectFailing(Answer(-1, EINVAL));
    ExpectGiveBackFailingAfter(1);  // the third unit stays taken: no further call
    try {
        Take();
        FAIL() << "nothing thrown";
    } catch (const std::exception_ptr& first) {
        const std::string failure = Thrown([&] { std::rethrow_exception(first); });
        EXPECT_EQ(failure, GetParam().failure);
    }
    EXPECT_EQ(output_.Text(), kNotUnrolled);
    EXPECT_EQ(output_.Flushed(), "");

    ExpectTaken(3);
    ExpectFailing(Answer(-1, EINVAL));
    ExpectGiveBackFailingAfter(0);
    try {
        Take();
        FAIL() << "nothing thrown";
    } catch (const std::nested_exception& nested) {
        EXPECT_EQ(Thrown([&] { nested.rethrow_nested(); }), notPosted_);
        const auto* const first = dynamic_cast<const std::exception_ptr*>(&nested);
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(Thrown([&] { std::rethrow_exception(*first); }), GetParam().failure);
    }
    EXPECT_EQ(output_.Text(), kNotUnrolled + kNotUnrolled);
    EXPECT_EQ(output_.Flushed(), "");
}

TEST_P(MultiLockFailure, UnitsThatCouldNotBeGivenBackStayInTheHandlesBalance) {
    ExpectTaken(3);
    ExpectFailing(Answer(-1, EINVAL));
    ExpectGiveBackFailingAfter(1);
    EXPECT_THROW(Take(), std::exception_ptr);
    ExpectGivingBack(2);
    semaphore_ = NamedSemaphore();
}

INSTANTIATE_TEST_SUITE_P(
    Operations, MultiLockFailure,
    testing::Values(Taking{"Lock", [](SemaphoreMultiLockHelper& helper) { helper.Lock(); }, true,
                           std::string("Error sem_wait:") + std::strerror(EINVAL)},
                    Taking{"TryLock",
                           [](SemaphoreMultiLockHelper& helper) { (void)helper.TryLock(); }, false,
                           "Error sem_trywait: errno != EAGAIN"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qel::test
