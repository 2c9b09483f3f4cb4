// Named semaphores whose system calls are refused.

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "Explorer.h"
#include "SemaphoreScenario.h"

namespace qel::test {
namespace {

/// Opens a semaphore, which is there beforehand or not.
class Opening : public SemaphoreScenario {
public:
    Opening(const World& world, bool isThere)
        : SemaphoreScenario(world, {5, Nothing, {}}), isThere_(isThere) {}

    void Prepare() override {
        if (isThere_) {
            SemaphoreScenario::Prepare();
        }
    }
    void Construct() override {}
    std::string Run() override {
        handle_.emplace(names_.semaphore.Name(), sys_, 3);
        return "opened";
    }
    [[nodiscard]] bool CanRecover() const override { return false; }

private:
    bool isThere_;
};

Table OpeningTable(const std::string& before, const std::string& after) {
    const auto success = Returns("opened").State(after).Left(after);
    const auto failed = [&](const Outcome& outcome) { return outcome.State(before).Left(before); };
    const std::string call = "sem_open(/SEMAPHORE, 524354, 384, 3)";
    return {success,
            {At(call, failed(Throws("Exception: Problem Creating Semaphore")
                                 .Prints("Exception: Problem Creating Semaphore - {errno}\n"))),
             At(call, failed(Throws("Exception: Invalid Semaphore name", "std::invalid_argument")
                                 .Prints("Exception: Invalid Semaphore name: {SEMAPHORE} errno: "
                                         "{errno}\n")))
                 .For({EINVAL, ENAMETOOLONG}),
             At(kSemClose, success.Prints(kNotClosed))},
            {},
            {}};
}

TEST(RefusedCallsOfASemaphore, WhenItIsCreated) {
    Explore(Make<Opening>(false), OpeningTable("none", "value 3"));
}

TEST(RefusedCallsOfASemaphore, WhenOneThatIsThereIsOpened) {
    Explore(Make<Opening>(true), OpeningTable("value 5", "value 5"));
}

/// An operation that takes a unit of two, which the handle's end gives back.
Table TakingTable(std::vector<Row> rows, const std::vector<std::string>& retried) {
    const auto success = Values(Returns("taken"), 1, 2);
    rows.push_back(At(kSemPost, Values(Returns("taken").Prints(kNotSettled), 1, 1)));
    rows.push_back(At(kSemClose, success.Prints(kNotClosed)));
    return {success, std::move(rows), retried, {}};
}

TEST(RefusedCallsOfASemaphore, WhenAUnitIsWaitedFor) {
    const SemaphoreUse use{2, Nothing, [](NamedSemaphore& semaphore) {
                               semaphore.Wait();
                               return "taken";
                           }};
    Explore(
        Make<SemaphoreScenario>(use),
        TakingTable({At(kSemWait, Values(Throws("Error sem_wait:{strerror}"), 2, 2))}, {kSemWait}));
}

TEST(RefusedCallsOfASemaphore, WhenAUnitIsTried) {
    const SemaphoreUse use{2, Nothing, [](NamedSemaphore& semaphore) {
                               return semaphore.TryWait() ? "taken" : "none was free";
                           }};
    Explore(
        Make<SemaphoreScenario>(use),
        TakingTable({At(kSemTryWait, Values(Throws("Error sem_trywait: errno != EAGAIN"), 2, 2)),
                     At(kSemTryWait, Values(Returns("none was free"), 2, 2)).For({EAGAIN})},
                    {kSemTryWait}));
}

TEST(RefusedCallsOfASemaphore, WhenAUnitIsWaitedForByTheClock) {
    const SemaphoreUse use{2, Nothing, [](NamedSemaphore& semaphore) {
                               semaphore.TimedWait(std::chrono::hours(1));
                               return "taken";
                           }};
    const auto row = [](int error, const std::string& text) {
        return At("sem_timedwait()",
                  Values(Throws("Error sem_timedwait " + text + ": {strerror}"), 2, 2))
            .For({error});
    };
    Table table = TakingTable(
        {row(EINVAL, "EINVAL"), row(EDEADLK, "EDEADLK"), row(ETIMEDOUT, "ETIMEDOUT"),
         row(EINTR, "unknown error").On(Route::Interface)},  // which is who goes on after signals
        {});
    Row retried = At("sem_timedwait()", table.success).For({EINTR}).On(Route::Direct);
    retried.retried = true;
    table.rows.push_back(retried);
    Explore(Make<SemaphoreScenario>(use), table);
}

TEST(RefusedCallsOfASemaphore, WhenAUnitIsPosted) {
    const SemaphoreUse use{1, Nothing, [](NamedSemaphore& semaphore) {
                               semaphore.Post();
                               return "posted";
                           }};
    const auto success = Values(Returns("posted"), 2, 1);
    Explore(Make<SemaphoreScenario>(use),
            {success,
             {At(kSemPost, Values(Throws("Error sem_post:{strerror}"), 1, 1)),
              At(kSemWait, Values(Returns("posted").Prints(kNotSettled), 2, 2)),
              At(kSemClose, success.Prints(kNotClosed))},
             {kSemWait},
             {}});
}

TEST(RefusedCallsOfASemaphore, WhenItsValueIsAskedFor) {
    const SemaphoreUse use{
        7, Nothing, [](NamedSemaphore& semaphore) { return std::to_string(semaphore.GetValue()); }};
    const auto success = Values(Returns("7"), 7, 7);
    Explore(
        Make<SemaphoreScenario>(use),
        {success,
         {At("sem_getvalue()", Values(Returns("0"), 7, 7)
                                   .Prints("NamedSemaphore - sem_getvalue: failed: {strerror}\n")),
          At(kSemClose, success.Prints(kNotClosed))},
         {},
         {}});
}

TEST(RefusedCallsOfASemaphore, WhenAHandleEndsThatHoldsTwoUnits) {
    const SemaphoreUse use{2,
                           [](const NamedSemaphore& semaphore) {
                               semaphore.Wait();
                               EXPECT_TRUE(semaphore.TryWait());
                           },
                           [](NamedSemaphore& /*semaphore*/) { return "held"; }};
    const auto success = Values(Returns("held"), 0, 2);
    const auto unsettled = Returns("held").Prints(kNotSettled);
    Explore(Make<SemaphoreScenario>(use), {success,
                                           {At(kSemPost, Values(unsettled, 0, 0)).Nth(1),
                                            At(kSemPost, Values(unsettled, 0, 1)).Nth(2),
                                            At(kSemClose, success.Prints(kNotClosed))},
                                           {},
                                           {}});
}

TEST(RefusedCallsOfASemaphore, WhenAHandleEndsThatHasPostedTwoUnits) {
    const SemaphoreUse use{2,
                           [](const NamedSemaphore& semaphore) {
                               semaphore.Post();
                               semaphore.Post();
                           },
                           [](NamedSemaphore& /*semaphore*/) { return "posted"; }};
    const auto success = Values(Returns("posted"), 4, 2);
    const auto unsettled = Returns("posted").Prints(kNotSettled);
    Explore(Make<SemaphoreScenario>(use), {success,
                                           {At(kSemWait, Values(unsettled, 4, 4)).Nth(1),
                                            At(kSemWait, Values(unsettled, 4, 3)).Nth(2),
                                            At(kSemClose, success.Prints(kNotClosed))},
                                           {kSemWait},
                                           {}});
}

}  // namespace
}  // namespace qel::test
