// The end of a handle while what it needs fails by an exception. An exception that got out would
// end this program.

#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "SemaphoreFixture.h"

namespace qel::test {
namespace {

using testing::InSequence;

/// How a substitute may fail, against the rules of the calls that it stands in for.
struct Thrower {
    const char* name;
    std::function<int(sem_t*)> call;
};

std::vector<Thrower> Throwers() {
    return {{"StandardException", [](sem_t*) -> int { throw std::runtime_error("no"); }},
            {"OtherException", [](sem_t*) -> int { throw 42; }}};
}

/// At the end of each test the handle is gone, and must have let go of the system calls.
class NamedSemaphoreDestruction : public SemaphoreFixture,
                                  public testing::WithParamInterface<Thrower> {
protected:
    void TearDown() override { EXPECT_EQ(sys_.use_count(), 1); }

    static auto Throw() { return GetParam().call; }
};

TEST_P(NamedSemaphoreDestruction, ClosesAfterAPostThatThrows) {
    {
        const NamedSemaphore semaphore = OpenAndTake(3);
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(0));
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Throw());
        ExpectClosing();
    }
    EXPECT_EQ(output_.Flushed(), kNotReset);
    EXPECT_EQ(output_.Text(), output_.Flushed());
}

TEST_P(NamedSemaphoreDestruction, ClosesAfterAWaitThatThrows) {
    {
        const NamedSemaphore semaphore = OpenAndPost(3);
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Answer(0));
        EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Throw());
        ExpectClosing();
    }
    EXPECT_EQ(output_.Flushed(), kNotReset);
    EXPECT_EQ(output_.Text(), output_.Flushed());
}

TEST_P(NamedSemaphoreDestruction, EndsInSilenceWhenClosingThrows) {
    {
        const NamedSemaphore semaphore = Open();
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Throw());
    }
    EXPECT_EQ(output_.Text(), "");
}

TEST_P(NamedSemaphoreDestruction, ClosesAlsoWhenItCannotSayThatItHasNotSettled) {
    {
        const NamedSemaphore semaphore = OpenAndTake(1);
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Throw());
        ExpectClosing();
        output_.RefuseByException();
    }
    EXPECT_TRUE(std::cout.bad());
}

TEST_P(NamedSemaphoreDestruction, EndsWhenEverythingThrows) {
    {
        const NamedSemaphore semaphore = OpenAndPost(1);
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemWait(Handle())).WillOnce(Throw());
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Throw());
        output_.RefuseByException();
    }
    EXPECT_TRUE(std::cout.bad());
}

TEST_P(NamedSemaphoreDestruction, ByAnAssignmentLeavesTheNewSemaphoreInPlace) {
    NamedSemaphore target = OpenAndTake(1);
    NamedSemaphore source = Open(OtherHandle());
    {
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Throw());
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Throw());
        target = std::move(source);
    }
    EXPECT_EQ(output_.Flushed(), kNotReset);
    EXPECT_CALL(*sys_, DoSemGetValue(OtherHandle(), testing::_)).WillOnce(AnswerValue(4));
    EXPECT_EQ(target.GetValue(), 4);
    EXPECT_CALL(*sys_, DoSemClose(OtherHandle())).WillOnce(Answer(0));
    target = NamedSemaphore();
}

INSTANTIATE_TEST_SUITE_P(Of, NamedSemaphoreDestruction, testing::ValuesIn(Throwers()),
                         [](const auto& row) { return row.param.name; });

using NamedSemaphoreUnheard = SemaphoreFixture;

TEST_F(NamedSemaphoreUnheard, ClosesWhenStandardOutputThrows) {
    {
        const NamedSemaphore semaphore = OpenAndTake(1);
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(-1, EOVERFLOW));
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(-1, EBADF));
        output_.RefuseByException();
    }
    EXPECT_TRUE(std::cout.bad());
    EXPECT_EQ(sys_.use_count(), 1);
}

TEST_F(NamedSemaphoreUnheard, ClosesWhenStandardOutputFailsWithoutAWord) {
    {
        const NamedSemaphore semaphore = OpenAndTake(1);
        const InSequence inOrder;
        EXPECT_CALL(*sys_, DoSemPost(Handle())).WillOnce(Answer(-1, EOVERFLOW));
        EXPECT_CALL(*sys_, DoSemClose(Handle())).WillOnce(Answer(-1, EBADF));
        output_.Refuse();
    }
    EXPECT_TRUE(std::cout.bad());
    EXPECT_EQ(sys_.use_count(), 1);
}

}  // namespace
}  // namespace qel::test
