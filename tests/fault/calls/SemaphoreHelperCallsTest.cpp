// Several units taken and given in one step, with a system call refused at each unit.

#include <gtest/gtest.h>

#include <cerrno>
#include <exception>

#include "Explorer.h"
#include "FaultySys.h"
#include "SemaphoreMultiLockHelper.h"
#include "SemaphoreScenario.h"

namespace qel::test {
namespace {

constexpr const char* kNotUnrolled =
    "SemaphoreMultiLockHelper failed to unroll after exception in lock\n";

TEST(RefusedCallsOfAMultiLock, WhenThreeUnitsAreTaken) {
    const SemaphoreUse use{3, Nothing, [](NamedSemaphore& semaphore) {
                               SemaphoreMultiLockHelper{semaphore, 3}.Lock();
                               return "locked";
                           }};
    const auto success = Values(Returns("locked"), 0, 3);
    const auto unsettled = Returns("locked").Prints(kNotSettled);
    Explore(
        Make<SemaphoreScenario>(use),
        {success,
         {At(kSemWait, Values(Throws("Error sem_wait:{strerror}"), 3, 3)),
          At(kSemPost, Values(unsettled, 0, 0)).Nth(1),
          At(kSemPost, Values(unsettled, 0, 1)).Nth(2),
          At(kSemPost, Values(unsettled, 0, 2)).Nth(3), At(kSemClose, success.Prints(kNotClosed))},
         {kSemWait},
         {}});
}

TEST(RefusedCallsOfAMultiLock, WhenThreeUnitsAreTriedAndTwoAreFree) {
    const SemaphoreUse use{
        2, Nothing, [](NamedSemaphore& semaphore) {
            return SemaphoreMultiLockHelper{semaphore, 3}.TryLock() ? "locked" : "not free";
        }};
    const auto success = Values(Returns("not free"), 2, 2);
    const auto notGiven = Throws("Error sem_post:{strerror}");
    Explore(Make<SemaphoreScenario>(use),
            {success,
             {At(kSemTryWait, Values(Throws("Error sem_trywait: errno != EAGAIN"), 2, 2)),
              At(kSemTryWait, success).For({EAGAIN}),
              At(kSemPost, Values(notGiven, 0, 2))
                  .Nth(1)
                  .Ever(Values(notGiven.Prints(kNotSettled), 0, 0)),
              At(kSemPost, Values(notGiven, 1, 2))
                  .Nth(2)
                  .Ever(Values(notGiven.Prints(kNotSettled), 1, 1)),
              At(kSemClose, success.Prints(kNotClosed))},
             {kSemTryWait},
             {}});
}

TEST(RefusedCallsOfAMultiLock, WhenThreeUnitsAreGivenBack) {
    const SemaphoreUse use{0, Nothing, [](NamedSemaphore& semaphore) {
                               SemaphoreMultiLockHelper{semaphore, 3}.Unlock();
                               return "given";
                           }};
    const auto success = Values(Returns("given"), 3, 0);
    const auto notGiven = Throws("Error sem_post:{strerror}");
    const auto unsettled = Returns("given").Prints(kNotSettled);
    Explore(
        Make<SemaphoreScenario>(use),
        {success,
         {At(kSemPost, Values(notGiven, 0, 0)).Nth(1), At(kSemPost, Values(notGiven, 1, 0)).Nth(2),
          At(kSemPost, Values(notGiven, 2, 0)).Nth(3), At(kSemWait, Values(unsettled, 3, 3)).Nth(1),
          At(kSemWait, Values(unsettled, 3, 2)).Nth(2),
          At(kSemWait, Values(unsettled, 3, 1)).Nth(3), At(kSemClose, success.Prints(kNotClosed))},
         {kSemWait},
         {}});
}

/// Has no third unit to give, and says so in a way of its own.
class RefusesTheThird : public FaultySys {
private:
    int DoSemWait(sem_t* sem) override {
        if (taken_ == 2) {
            errno = EPROTO;
            return -1;
        }
        const int result = FaultySys::DoSemWait(sem);
        taken_ += result == 0 ? 1 : 0;
        return result;
    }

    int taken_ = 0;
};

/// Takes three units, the third of which is refused, so that two are to be given back.
class GivingBack : public SemaphoreScenario {
public:
    explicit GivingBack(const World& world)
        : SemaphoreScenario({world.names, std::make_shared<RefusesTheThird>()},
                            {3, Nothing, TakeThree}) {}

    [[nodiscard]] bool CanRecover() const override { return false; }
    void Again() override {
        sys_ = std::make_shared<FaultySys>();
        SemaphoreScenario::Again();
    }

private:
    static std::string TakeThree(NamedSemaphore& semaphore) {
        try {
            SemaphoreMultiLockHelper{semaphore, 3}.Lock();
        } catch (const std::exception_ptr& first) {
            return TextOf(first) + ", then " + TextOf(Nested());
        }
        return "locked";
    }
    /// For a handler: the exception that the one at hand was thrown with.
    static std::exception_ptr Nested() {
        try {
            throw;
        } catch (const std::nested_exception& nested) {
            return nested.nested_ptr();
        } catch (...) {
            return nullptr;
        }
    }
    static std::string TextOf(const std::exception_ptr& failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }
};

TEST(RefusedCallsOfAMultiLock, WhenUnitsAreGivenBackBecauseOneWasRefused) {
    const auto success = Values(Throws("Error sem_wait:Protocol error"), 3, 3);
    const auto both = Returns("Error sem_wait:Protocol error, then Error sem_post:{strerror}")
                          .Prints(kNotUnrolled);
    Explore(Make<GivingBack>(),
            {success,
             {At(kSemWait, Values(Throws("Error sem_wait:{strerror}"), 3, 3)),
              At(kSemPost, Values(both, 1, 3)).Nth(1).Ever(Values(both.Prints(kNotSettled), 1, 1)),
              At(kSemPost, Values(both, 2, 3)).Nth(2).Ever(Values(both.Prints(kNotSettled), 2, 2)),
              At(kSemClose, success.Prints(kNotClosed))},
             {kSemWait},
             {}},
            {Route::Interface});
}

}  // namespace
}  // namespace qel::test
