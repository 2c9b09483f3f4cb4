#include "SemaphoreFixture.h"

namespace qel::test {
namespace {

using testing::InSequence;

constexpr std::chrono::duration<double> kLimit(0.1);

std::string SystemText(int error) {
    return std::strerror(error);
}

using NamedSemaphoreWait = SemaphoreFixture;

TEST_F(NamedSemaphoreWait, TakesAUnit) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(0));
    semaphore.Wait();
    ExpectGivingBack(1);
}

TEST_F(NamedSemaphoreWait, GoesOnAfterEveryInterruption) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemWait(Handle()))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(0));
    semaphore.Wait();
    ExpectGivingBack(1);
}

TEST_F(NamedSemaphoreWait, GoesOnAfterInterruptionsUntilAFailure) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemWait(Handle()))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(-1, EINVAL));
    EXPECT_EQ(Thrown([&] { semaphore.Wait(); }), "Error sem_wait:" + SystemText(EINVAL));
    ExpectGivingBack(0);
}

TEST_F(NamedSemaphoreWait, TakesNothingWhenTheSystemAnswersNonsense) {
    const NamedSemaphore semaphore = Open();
    // Interrupted or not: only -1 is an interruption.
    EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(1, EINTR));
    EXPECT_EQ(Thrown([&] { semaphore.Wait(); }), "Error sem_wait:" + SystemText(EINTR));
    ExpectGivingBack(0);
}

using NamedSemaphorePost = SemaphoreFixture;

TEST_F(NamedSemaphorePost, GivesAUnit) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(0));
    semaphore.Post();
    EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(0));
    ExpectClosing();
}

TEST_F(NamedSemaphorePost, FailsAtTheFirstRefusalWhateverItIs) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemPost(Handle()))
        .WillOnce(Answer(-1, EOVERFLOW))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(1, EINVAL));
    for (const int error : {EOVERFLOW, EINTR, EINVAL}) {
        EXPECT_EQ(Thrown([&] { semaphore.Post(); }), "Error sem_post:" + SystemText(error));
    }
    ExpectClosing();
}

using NamedSemaphoreTimedWait = SemaphoreFixture;

TEST_F(NamedSemaphoreTimedWait, PassesTheLimitUnchangedAndTakesAUnit) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemTimedwait(Handle(), kLimit)).WillOnce(Answer(0));
    semaphore.TimedWait(kLimit);
    ExpectGivingBack(1);
}

TEST_F(NamedSemaphoreTimedWait, TakesAUnitOnEveryAnswerThatIsNotAFailure) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemTimedwait(Handle(), -kLimit)).WillOnce(Answer(1, ETIMEDOUT));
    semaphore.TimedWait(-kLimit);
    ExpectGivingBack(1);
}

struct TimedWaitFailureRow {
    int error;
    const char* prefix;
};

class NamedSemaphoreTimedWaitFailure : public SemaphoreFixture,
                                       public testing::WithParamInterface<TimedWaitFailureRow> {};

TEST_P(NamedSemaphoreTimedWaitFailure, IsToldByErrnoAfterOneCall) {
    const NamedSemaphore semaphore = Open();
    const auto [error, prefix] = GetParam();
    EXPECT_CALL(*sys_, DoSemTimedwait(Handle(), kLimit)).WillOnce(Answer(-1, error));
    EXPECT_EQ(Thrown([&] { semaphore.TimedWait(kLimit); }), prefix + SystemText(error));
    EXPECT_EQ(output_.Text(), "");
    ExpectGivingBack(0);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, NamedSemaphoreTimedWaitFailure,
    testing::Values(TimedWaitFailureRow{EINVAL, "Error sem_timedwait EINVAL: "},
                    TimedWaitFailureRow{EDEADLK, "Error sem_timedwait EDEADLK: "},
                    TimedWaitFailureRow{ETIMEDOUT, "Error sem_timedwait ETIMEDOUT: "},
                    TimedWaitFailureRow{EINTR, "Error sem_timedwait unknown error: "},
                    TimedWaitFailureRow{EAGAIN, "Error sem_timedwait unknown error: "},
                    TimedWaitFailureRow{EPERM, "Error sem_timedwait unknown error: "}),
    [](const auto& row) { return strerrorname_np(row.param.error); });

using NamedSemaphoreTryWait = SemaphoreFixture;

TEST_F(NamedSemaphoreTryWait, TakesAFreeUnit) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemTryWait(Handle())).WillOnce(Answer(0));
    EXPECT_TRUE(semaphore.TryWait());
    ExpectGivingBack(1);
}

TEST_F(NamedSemaphoreTryWait, SaysWhenNoneIsFree) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemTryWait(Handle())).WillOnce(Answer(-1, EAGAIN));
    EXPECT_FALSE(semaphore.TryWait());
    ExpectGivingBack(0);
}

TEST_F(NamedSemaphoreTryWait, TriesAgainAfterEveryInterruption) {
    const NamedSemaphore semaphore = Open();
    {
        InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemTryWait(Handle())).Times(3).WillRepeatedly(Answer(-1, EINTR));
        EXPECT_CALL(*sys_, DoSemTryWait(Handle())).WillOnce(Answer(0));
        EXPECT_CALL(*sys_, DoSemTryWait(Handle())).Times(2).WillRepeatedly(Answer(-1, EINTR));
        EXPECT_CALL(*sys_, DoSemTryWait(Handle())).WillOnce(Answer(-1, EAGAIN));
    }
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_FALSE(semaphore.TryWait());
    ExpectGivingBack(1);
}

TEST_F(NamedSemaphoreTryWait, JudgesEveryAnswerButSuccessByErrno) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemTryWait(Handle()))
        .WillOnce(Answer(1, EINTR))
        .WillOnce(Answer(1, EAGAIN));
    EXPECT_FALSE(semaphore.TryWait());
    ExpectGivingBack(0);
}

TEST_F(NamedSemaphoreTryWait, FailsOnEveryOtherError) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemTryWait(Handle()))
        .WillOnce(Answer(-1, EINVAL))
        .WillOnce(Answer(-1, EINTR))
        .WillOnce(Answer(-1, ETIMEDOUT));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Thrown([&] { (void)semaphore.TryWait(); }), "Error sem_trywait: errno != EAGAIN");
    }
    ExpectGivingBack(0);
}

using NamedSemaphoreValue = SemaphoreFixture;

TEST_F(NamedSemaphoreValue, IsWhatTheSystemSays) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemGetValue(Handle(), testing::Pointee(0))).WillOnce(AnswerValue(5));
    EXPECT_EQ(semaphore.GetValue(), 5);
    EXPECT_EQ(output_.Text(), "");
    ExpectGivingBack(0);
}

TEST_F(NamedSemaphoreValue, IsZeroWithAFlushedLineWhenTheSystemRefuses) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemGetValue(Handle(), testing::Pointee(0))).WillOnce(Answer(-1, EINVAL));
    output_.SetErrno(EPIPE);
    EXPECT_EQ(semaphore.GetValue(), 0);
    EXPECT_EQ(output_.Flushed(),
              "NamedSemaphore - sem_getvalue: failed: " + SystemText(EINVAL) + "\n");
    EXPECT_EQ(output_.Text(), output_.Flushed());
    ExpectGivingBack(0);
}

TEST_F(NamedSemaphoreValue, IsWhatARefusedCallHasStored) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemGetValue(Handle(), testing::_)).WillOnce(AnswerValue(-3, -1, EINVAL));
    EXPECT_EQ(semaphore.GetValue(), -3);
    EXPECT_EQ(output_.Flushed(),
              "NamedSemaphore - sem_getvalue: failed: " + SystemText(EINVAL) + "\n");
    ExpectGivingBack(0);
}

TEST_F(NamedSemaphoreValue, IsToldWithoutALineOnEveryAnswerThatIsNotAFailure) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemGetValue(Handle(), testing::_)).WillOnce(AnswerValue(2, 1, EINVAL));
    EXPECT_EQ(semaphore.GetValue(), 2);
    EXPECT_EQ(output_.Text(), "");
    ExpectGivingBack(0);
}

}  // namespace
}  // namespace qel::test
