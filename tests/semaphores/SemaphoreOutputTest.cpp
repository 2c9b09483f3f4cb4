// What semaphores write on a standard output that the host program has set to formats of its own.

#include "SemaphoreFixture.h"
#include "SemaphoreMultiLockHelper.h"

namespace qel::test {
namespace {

std::string SystemText(int error) {
    return std::strerror(error);
}

class SemaphoreOutput : public SemaphoreFixture {
protected:
    SemaphoreOutput() { FormatAsAHostMay(); }

    void ExpectRefusedOpening(int error) {
        EXPECT_CALL(*sys_, DoSemOpenc).WillOnce([error](auto&&...) {
            errno = error;
            return static_cast<sem_t*>(nullptr);
        });
        EXPECT_ANY_THROW(NamedSemaphore("/10", sys_, 1));
    }
};

TEST_F(SemaphoreOutput, OfABadNameIsAsAlways) {
    ExpectRefusedOpening(ENAMETOOLONG);
    EXPECT_EQ(output_.Text(), "Exception: Invalid Semaphore name: /10 errno: 36\n");
}

TEST_F(SemaphoreOutput, OfAFailureToOpenIsAsAlways) {
    ExpectRefusedOpening(ENOSPC);
    EXPECT_EQ(output_.Text(), "Exception: Problem Creating Semaphore - 28\n");
}

TEST_F(SemaphoreOutput, OfAValueThatIsNotToldIsAsAlways) {
    const NamedSemaphore semaphore = Open();
    EXPECT_CALL(*sys_, DoSemGetValue).WillOnce(Answer(-1, EINVAL));
    EXPECT_EQ(semaphore.GetValue(), 0);
    EXPECT_EQ(output_.Text(),
              "NamedSemaphore - sem_getvalue: failed: " + SystemText(EINVAL) + "\n");
    ExpectClosing();
}

TEST_F(SemaphoreOutput, OfABalanceThatIsNotSettledIsAsAlways) {
    {
        const NamedSemaphore semaphore = OpenAndTake(1);
        EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
        ExpectClosing();
    }
    EXPECT_EQ(output_.Text(), kNotReset);
}

TEST_F(SemaphoreOutput, OfASemaphoreThatIsNotClosedIsAsAlways) {
    {
        const NamedSemaphore semaphore = Open();
        EXPECT_CALL(*sys_, DoSemClose).WillOnce(Answer(-1, EBADF));
    }
    EXPECT_EQ(output_.Text(), NotClosed(EBADF));
}

TEST_F(SemaphoreOutput, OfUnitsThatAreNotGivenBackIsAsAlways) {
    NamedSemaphore semaphore = Open();
    SemaphoreMultiLockHelper both{semaphore, 2};
    EXPECT_CALL(*sys_, DoSemWait).WillOnce(Answer(0)).WillOnce(Answer(-1, EINVAL));
    EXPECT_CALL(*sys_, DoSemPost).WillOnce(Answer(-1, EOVERFLOW));
    EXPECT_ANY_THROW(both.Lock());
    EXPECT_EQ(output_.Text(),
              "SemaphoreMultiLockHelper failed to unroll after exception in lock\n");
    Verify();
    ExpectGivingBack(1);
}

}  // namespace
}  // namespace qel::test
