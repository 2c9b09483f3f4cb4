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
    Failure failure;
    std::string line;
};

class NamedSemaphoreRefused : public SemaphoreFixture,
                              public testing::WithParamInterface<Refusal> {};

TEST_P(NamedSemaphoreRefused, ThrowsAfterAnUnflushedLineAndLeavesNothingOpen) {
    EXPECT_CALL(*sys_, DoSemOpenc).WillOnce([](auto&&...) {
        errno = GetParam().error;
        return static_cast<sem_t*>(nullptr);
    });
    output_.SetErrno(EPIPE);
    EXPECT_EQ(Thrown([&] { const NamedSemaphore semaphore("/refused", sys_, 1); }),
              GetParam().failure);
    EXPECT_EQ(output_.Text(), GetParam().line);
    EXPECT_EQ(output_.Flushed(), "");
    EXPECT_EQ(sys_.use_count(), 1);
}

Failure BadName() {
    return FailureOf<std::invalid_argument>("Exception: Invalid Semaphore name");
}
Failure Problem() {
    return FailureOf<std::runtime_error>("Exception: Problem Creating Semaphore");
}

INSTANTIATE_TEST_SUITE_P(
    Errors, NamedSemaphoreRefused,
    testing::Values(
        Refusal{ENAMETOOLONG, BadName(), "Exception: Invalid Semaphore name: /refused errno: 36\n"},
        Refusal{EINVAL, BadName(), "Exception: Invalid Semaphore name: /refused errno: 22\n"},
        Refusal{EACCES, Problem(), "Exception: Problem Creating Semaphore - 13\n"},
        Refusal{EMFILE, Problem(), "Exception: Problem Creating Semaphore - 24\n"},
        Refusal{ENOSPC, Problem(), "Exception: Problem Creating Semaphore - 28\n"},
        Refusal{EINTR, Problem(), "Exception: Problem Creating Semaphore - 4\n"}),
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
        EXPECT_EQ(
            Thrown([&] { GetParam().call(empty); }),
            FailureOf<std::runtime_error>("Error: Accessed default constructed NamedSemaphore"));
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
