#include <string_view>
#include <type_traits>

#include "SemaphoreFixture.h"

namespace qel::test {
namespace {

using testing::Return;
using testing::StrEq;

static_assert(!std::is_copy_constructible_v<NamedSemaphore>);
static_assert(!std::is_copy_assignable_v<NamedSemaphore>);
static_assert(std::is_nothrow_move_constructible_v<NamedSemaphore>);
static_assert(std::is_nothrow_move_assignable_v<NamedSemaphore>);
static_assert(std::is_nothrow_destructible_v<NamedSemaphore>);
static_assert(sizeof(NamedSemaphore) == sizeof(void*));

using NamedSemaphoreOpening = SemaphoreFixture;

TEST_F(NamedSemaphoreOpening, OpensOrCreatesForReadingAndWritingClosedOnExecForTheOwnerOnly) {
    EXPECT_CALL(*sys_, DoSemOpenc(StrEq("/semaphore"), 0x80042, 0600U, 7U))
        .WillOnce(Return(Handle()));
    ExpectClosing();
    const NamedSemaphore semaphore("/semaphore", sys_, 7);
    EXPECT_EQ(output_.Text(), "");
}

TEST_F(NamedSemaphoreOpening, NamePassesAsItStands) {
    constexpr std::string_view kText = "no slash, and a text that goes on";
    EXPECT_CALL(*sys_, DoSemOpenc(StrEq("no slash"), 0x80042, 0600U, 0xFFFFFFFFU))
        .WillOnce(Return(Handle()));
    ExpectClosing();
    const NamedSemaphore semaphore(kText.substr(0, 8), sys_, 0xFFFFFFFFU);
}

TEST_F(NamedSemaphoreOpening, SystemCallsAreSharedUntilTheHandleGoes) {
    {
        const NamedSemaphore semaphore = Open();
        EXPECT_EQ(sys_.use_count(), 2);
        ExpectClosing();
    }
    EXPECT_EQ(sys_.use_count(), 1);
}

struct Refusal {
    int error;
    std::string line;
};

class NamedSemaphoreRefused : public SemaphoreFixture, public testing::WithParamInterface<Refusal> {
protected:
    /// Has the opening refused; the text of the `Exception`.
    template <typename Exception>
    std::string Failure() {
        EXPECT_CALL(*sys_, DoSemOpenc).WillOnce([](auto&&...) {
            errno = GetParam().error;
            return static_cast<sem_t*>(nullptr);
        });
        output_.SetErrno(EPIPE);
        return Thrown<Exception>([&] { const NamedSemaphore semaphore("/refused", sys_, 1); });
    }
    void ExpectAnUnflushedLineAndNothingLeftOpen() {
        EXPECT_EQ(output_.Text(), GetParam().line);
        EXPECT_EQ(output_.Flushed(), "");
        EXPECT_EQ(sys_.use_count(), 1);
    }
};

class NamedSemaphoreOfABadName : public NamedSemaphoreRefused {};
class NamedSemaphoreOutOfReach : public NamedSemaphoreRefused {};

TEST_P(NamedSemaphoreOfABadName, IsAnInvalidArgument) {
    EXPECT_EQ(Failure<std::invalid_argument>(), "Exception: Invalid Semaphore name");
    ExpectAnUnflushedLineAndNothingLeftOpen();
}

TEST_P(NamedSemaphoreOutOfReach, IsARuntimeError) {
    EXPECT_EQ(Failure<std::runtime_error>(), "Exception: Problem Creating Semaphore");
    ExpectAnUnflushedLineAndNothingLeftOpen();
}

INSTANTIATE_TEST_SUITE_P(
    Errors, NamedSemaphoreOfABadName,
    testing::Values(Refusal{ENAMETOOLONG,
                            "Exception: Invalid Semaphore name: /refused errno: 36\n"},
                    Refusal{EINVAL, "Exception: Invalid Semaphore name: /refused errno: 22\n"}),
    [](const auto& row) { return strerrorname_np(row.param.error); });

INSTANTIATE_TEST_SUITE_P(
    Errors, NamedSemaphoreOutOfReach,
    testing::Values(Refusal{EACCES, "Exception: Problem Creating Semaphore - 13\n"},
                    Refusal{EMFILE, "Exception: Problem Creating Semaphore - 24\n"},
                    Refusal{ENOSPC, "Exception: Problem Creating Semaphore - 28\n"},
                    Refusal{EINTR, "Exception: Problem Creating Semaphore - 4\n"}),
    [](const auto& row) { return strerrorname_np(row.param.error); });

// What every handle without a semaphore does.
struct EmptyHandleOperation {
    const char* name;
    void (*call)(const NamedSemaphore&);
};

class EmptyNamedSemaphore : public SemaphoreFixture,
                            public testing::WithParamInterface<EmptyHandleOperation> {
protected:
    static void ExpectRefusal(const NamedSemaphore& empty) {
        EXPECT_EQ(Thrown([&] { GetParam().call(empty); }),
                  "Error: Accessed default constructed NamedSemaphore");
    }
};

TEST_P(EmptyNamedSemaphore, RefusesWhenDefaultConstructed) {
    const NamedSemaphore semaphore;
    ExpectRefusal(semaphore);
    EXPECT_EQ(output_.Text(), "");
}

TEST_P(EmptyNamedSemaphore, RefusesWhenMovedFrom) {
    NamedSemaphore semaphore = Open();
    const NamedSemaphore taker = std::move(semaphore);
    ExpectRefusal(semaphore);  // NOLINT(bugprone-use-after-move)
    ExpectClosing();
}

INSTANTIATE_TEST_SUITE_P(
    Operations, EmptyNamedSemaphore,
    testing::Values(EmptyHandleOperation{"Wait", [](const NamedSemaphore& empty) { empty.Wait(); }},
                    EmptyHandleOperation{"Post", [](const NamedSemaphore& empty) { empty.Post(); }},
                    EmptyHandleOperation{"TimedWait",
                                         [](const NamedSemaphore& empty) {
                                             empty.TimedWait(std::chrono::seconds(1));
                                         }},
                    EmptyHandleOperation{
                        "TryWait", [](const NamedSemaphore& empty) { (void)empty.TryWait(); }},
                    EmptyHandleOperation{
                        "GetValue", [](const NamedSemaphore& empty) { (void)empty.GetValue(); }}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qel::test
