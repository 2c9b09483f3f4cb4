#include "SemaphoreFixture.h"

namespace qel::test {
namespace {

using testing::InSequence;

/// What a handle has done, and what its end has to do about it.
struct Balance {
    const char* name;
    int waits;
    int timedWaits;
    int tries;
    int posts;
    int toPost;
    int toWait;
};

class NamedSemaphoreEnd : public SemaphoreFixture, public testing::WithParamInterface<Balance> {};

TEST_P(NamedSemaphoreEnd, SettlesTheBalanceAndThenCloses) {
    const Balance& balance = GetParam();
    {
        const NamedSemaphore semaphore = Open();
        ExpectPosts(balance.posts);
        ExpectWaits(balance.waits);
        ExpectTimedWaits(balance.timedWaits);
        ExpectTries(balance.tries);
        for (int i = 0; i < balance.posts; ++i) {
            semaphore.Post();
        }
        for (int i = 0; i < balance.waits; ++i) {
            semaphore.Wait();
        }
        for (int i = 0; i < balance.timedWaits; ++i) {
            semaphore.TimedWait(std::chrono::seconds(1));
        }
        for (int i = 0; i < balance.tries; ++i) {
            ASSERT_TRUE(semaphore.TryWait());
        }
        Verify();

        InSequence inOrder;
        ExpectPosts(balance.toPost);
        ExpectWaits(balance.toWait);
        ExpectClosing();
    }
    EXPECT_EQ(output_.Text(), "");
}

INSTANTIATE_TEST_SUITE_P(Balances, NamedSemaphoreEnd,
                         testing::Values(Balance{"Untouched", 0, 0, 0, 0, 0, 0},
                                         Balance{"OneTakenByWait", 1, 0, 0, 0, 1, 0},
                                         Balance{"OneTakenByTimedWait", 0, 1, 0, 0, 1, 0},
                                         Balance{"OneTakenByTryWait", 0, 0, 1, 0, 1, 0},
                                         Balance{"OnePosted", 0, 0, 0, 1, 0, 1},
                                         Balance{"TwoPosted", 0, 0, 0, 2, 0, 2},
                                         Balance{"ThreeTakenInThreeWays", 1, 1, 1, 0, 3, 0},
                                         Balance{"MoreTakenThanPosted", 3, 2, 1, 4, 2, 0},
                                         Balance{"MorePostedThanTaken", 1, 1, 1, 5, 0, 2},
                                         Balance{"AsManyTakenAsPosted", 1, 1, 1, 3, 0, 0}),
                         [](const auto& row) { return row.param.name; });

using NamedSemaphoreUnsettled = SemaphoreFixture;

TEST_F(NamedSemaphoreUnsettled, StopsAtAPostThatFailsSaysSoAndCloses) {
    {
        const NamedSemaphore semaphore = OpenAndTake(3);
        InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(0));
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(-1, EOVERFLOW));
        ExpectClosing();
    }
    EXPECT_EQ(output_.Flushed(), kNotReset);
    EXPECT_EQ(output_.Text(), output_.Flushed());
}

TEST_F(NamedSemaphoreUnsettled, StopsAtAWaitThatFailsSaysSoAndCloses) {
    {
        const NamedSemaphore semaphore = OpenAndPost(3);
        InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(0));
        EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(-1, EINVAL));
        ExpectClosing();
    }
    EXPECT_EQ(output_.Flushed(), kNotReset);
    EXPECT_EQ(output_.Text(), output_.Flushed());
}

TEST_F(NamedSemaphoreUnsettled, GoesOnAfterAnInterruptedWait) {
    {
        const NamedSemaphore semaphore = OpenAndPost(1);
        InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemWait(Handle())).Times(3).WillRepeatedly(Answer(-1, EINTR));
        EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(0));
        ExpectClosing();
    }
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(NamedSemaphoreUnsettled, DoesNotCountWhatFailed) {
    {
        const NamedSemaphore semaphore = OpenAndTake(1);
        EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
        EXPECT_CALL(*sys_, DoSemWait).WillOnce(Answer(-1, EINVAL));
        EXPECT_CALL(*sys_, DoSemTimedwait).WillOnce(Answer(-1, ETIMEDOUT));
        EXPECT_CALL(*sys_, DoSemTryWait).WillOnce(Answer(-1, EAGAIN)).WillOnce(Answer(-1, EPERM));
        EXPECT_NE(Thrown([&] { semaphore.Post(); }), "nothing thrown");
        EXPECT_NE(Thrown([&] { semaphore.Wait(); }), "nothing thrown");
        EXPECT_NE(Thrown([&] { semaphore.TimedWait(std::chrono::seconds(1)); }), "nothing thrown");
        EXPECT_FALSE(semaphore.TryWait());
        EXPECT_NE(Thrown([&] { (void)semaphore.TryWait(); }), "nothing thrown");
        Verify();
        ExpectGivingBack(1);
    }
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(NamedSemaphoreUnsettled, SaysWhenItCannotClose) {
    {
        const NamedSemaphore semaphore = Open();
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(-1, EINVAL));
        output_.SetErrno(EPIPE);
    }
    EXPECT_EQ(output_.Flushed(), NotClosed(EINVAL));
    EXPECT_EQ(output_.Text(), output_.Flushed());
}

TEST_F(NamedSemaphoreUnsettled, SaysWhenItCanNeitherSettleNorClose) {
    {
        const NamedSemaphore semaphore = OpenAndTake(1);
        EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(-1, EBADF));
    }
    EXPECT_EQ(output_.Flushed(), kNotReset + NotClosed(EBADF));
}

TEST_F(NamedSemaphoreUnsettled, TakesOnlyMinusOneFromCloseAsAFailure) {
    {
        const NamedSemaphore semaphore = Open();
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(1, EINVAL));
    }
    EXPECT_EQ(output_.Text(), "");
}

/// Two semaphores over the same system calls.
class NamedSemaphoreMove : public SemaphoreFixture {
protected:
    void ExpectValueOfOther(int value) {
        EXPECT_CALL(*sys_, DoSemGetValue(OtherHandle(), testing::_)).WillOnce(AnswerValue(value));
    }
    void ExpectClosingOther() { EXPECT_CALL(*sys_, DoSemClose(OtherHandle())).WillOnce(Answer(0)); }
};

TEST_F(NamedSemaphoreMove, ConstructionTakesTheSemaphoreWithItsBalance) {
    {
        NamedSemaphore source = OpenAndTake(2);
        const NamedSemaphore target = std::move(source);
        ExpectGivingBack(2);
    }
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(NamedSemaphoreMove, AssignmentTakesOverBeforeItSettlesAndClosesWhatItHeld) {
    NamedSemaphore target = OpenAndTake(1);
    NamedSemaphore source = Open(OtherHandle());
    {
        InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce([&](sem_t*) {
            EXPECT_EQ(target.GetValue(), 9);
            EXPECT_NE(Thrown([&] { source.Post(); }), "nothing thrown");
            return 0;
        });
        ExpectValueOfOther(9);
        ExpectClosing();
        target = std::move(source);
        Verify();
    }
    EXPECT_EQ(sys_.use_count(), 2);
    ExpectClosingOther();
}

TEST_F(NamedSemaphoreMove, AssignmentThatCannotSettleSaysSoAndHasTheNewSemaphore) {
    NamedSemaphore target = OpenAndPost(1);
    EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(-1, EINVAL));
    EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(-1, EINVAL));
    target = Open(OtherHandle());
    EXPECT_EQ(output_.Flushed(), kNotReset + NotClosed(EINVAL));
    ExpectValueOfOther(4);
    EXPECT_EQ(target.GetValue(), 4);
    ExpectClosingOther();
}

TEST_F(NamedSemaphoreMove, AssignmentToAnEmptyHandleClosesNothing) {
    NamedSemaphore target;
    target = OpenAndTake(1);
    Verify();
    ExpectGivingBack(1);
}

TEST_F(NamedSemaphoreMove, AssignmentOfAnEmptyHandleSettlesAndCloses) {
    NamedSemaphore target = OpenAndTake(2);
    ExpectGivingBack(2);
    target = NamedSemaphore();
    Verify();
    EXPECT_EQ(Thrown([&] { target.Post(); }), "Error: Accessed default constructed NamedSemaphore");
    EXPECT_EQ(sys_.use_count(), 1);
}

TEST_F(NamedSemaphoreMove, AssignmentToItselfChangesNothing) {
    NamedSemaphore semaphore = OpenAndTake(1);
    NamedSemaphore& itself = semaphore;
    semaphore = std::move(itself);
    EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(0));
    semaphore.Post();
    Verify();
    ExpectClosing();
}

}  // namespace
}  // namespace qel::test
