#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "UniqueFunction.h"

namespace qel {
namespace {

static_assert(!std::is_copy_constructible_v<UniqueFunction<void()>>);
static_assert(!std::is_copy_assignable_v<UniqueFunction<void()>>);
static_assert(std::is_nothrow_move_constructible_v<UniqueFunction<void()>>);
static_assert(std::is_nothrow_move_assignable_v<UniqueFunction<void()>>);
static_assert(!std::is_constructible_v<UniqueFunction<void(int)>, void (*)(std::string)>,
              "a callable of another signature is refused where it is given, not where it is used");
static_assert(!std::is_constructible_v<UniqueFunction<int()>, std::string (*)()>);

int Twice(int value) {
    return 2 * value;
}

TEST(AUniqueFunction, WithoutACallableIsFalseAndThrowsWhenCalled) {
    UniqueFunction<int(int)> function;

    EXPECT_FALSE(function);
    EXPECT_THROW(function(1), std::bad_function_call);
}

/// What `callable` makes is taken for empty and throws when called.
template <typename Signature, typename Callable, typename... Args>
void ExpectEmptyOf(Callable&& callable, Args&&... args) {
    UniqueFunction<Signature> function(std::forward<Callable>(callable));

    EXPECT_FALSE(function);
    EXPECT_THROW(function(std::forward<Args>(args)...), std::bad_function_call);
}

TEST(AUniqueFunction, OfANullFunctionPointerIsEmpty) {
    int (*const null)(int) = nullptr;
    ExpectEmptyOf<int(int)>(null, 1);
    ExpectEmptyOf<void(int)>(static_cast<int (*)(int)>(nullptr), 1);
}

TEST(AUniqueFunction, OfANullMemberPointerIsEmpty) {
    using Size = std::size_t (std::string::*)() const noexcept;
    ExpectEmptyOf<std::size_t(const std::string&)>(Size{nullptr}, "four");
    using First = int std::pair<int, int>::*;
    ExpectEmptyOf<int(const std::pair<int, int>&)>(First{nullptr}, std::pair(1, 2));
}

TEST(AUniqueFunction, OfAStdFunctionWithoutACallableIsEmpty) {
    ExpectEmptyOf<int(int)>(std::function<int(int)>(), 1);
    ExpectEmptyOf<void(int)>(std::function<int(long)>(), 1);
    std::function<int(int)> empty;
    ExpectEmptyOf<int(int)>(empty, 1);
    ExpectEmptyOf<int(int)>(std::as_const(empty), 1);
    ExpectEmptyOf<void(int)>(UniqueFunction<int(int)>(), 1);
}

TEST(AUniqueFunction, CallsAPlainFunction) {
    UniqueFunction<int(int)> function(&Twice);

    EXPECT_TRUE(function);
    EXPECT_EQ(function(21), 42);
}

TEST(AUniqueFunction, CallsAMemberFunction) {
    UniqueFunction<std::size_t(const std::string&)> function(&std::string::size);

    EXPECT_EQ(function("four"), 4U);
}

TEST(AUniqueFunction, ReadsAMember) {
    UniqueFunction<int(const std::pair<int, int>&)> function(&std::pair<int, int>::second);

    EXPECT_EQ(function(std::pair(1, 2)), 2);
}

TEST(AUniqueFunction, CallsWhatAStdFunctionHolds) {
    UniqueFunction<int(int)> function{std::function<int(int)>(&Twice)};

    EXPECT_TRUE(function);
    EXPECT_EQ(function(21), 42);
}

TEST(AUniqueFunction, HoldsACallableThatCannotBeCopied) {
    UniqueFunction<int()> function([value = std::make_unique<int>(7)] { return *value; });

    EXPECT_EQ(function(), 7);
}

TEST(AUniqueFunction, KeepsTheStateOfItsCallableBetweenCalls) {
    UniqueFunction<int()> function([count = 0]() mutable { return ++count; });

    EXPECT_EQ(function(), 1);
    EXPECT_EQ(function(), 2);
}

TEST(AUniqueFunction, CopiesACallableThatIsNotGivenAway) {
    const auto owned = std::make_shared<int>(5);
    const auto callable = [owned] { return *owned; };
    UniqueFunction<int()> function(callable);

    EXPECT_EQ(owned.use_count(), 3);
    EXPECT_EQ(function(), 5);
    EXPECT_EQ(callable(), 5);
}

TEST(AUniqueFunction, DropsAResultThatNobodyWants) {
    int seen = 0;
    UniqueFunction<void(int)> function([&seen](int value) { return seen = value; });

    function(5);

    EXPECT_EQ(seen, 5);
}

TEST(AUniqueFunction, HandsItsArgumentsOnWithoutACopy) {
    UniqueFunction<std::unique_ptr<int>(std::unique_ptr<int>)> function(
        [](std::unique_ptr<int> value) { return value; });

    EXPECT_EQ(*function(std::make_unique<int>(9)), 9);
}

TEST(AUniqueFunction, LetsWhatItsCallableThrowsPass) {
    UniqueFunction<void()> function([] { throw std::runtime_error("no"); });

    EXPECT_THROW(function(), std::runtime_error);
}

TEST(AUniqueFunction, IsEmptyAfterItHasBeenMovedFrom) {
    UniqueFunction<int()> from([] { return 3; });

    UniqueFunction<int()> to(std::move(from));

    EXPECT_FALSE(from);  // NOLINT(bugprone-use-after-move): its state is what is tested
    EXPECT_EQ(to(), 3);
}

TEST(AUniqueFunction, DestroysItsCallableWhenAnotherIsMovedIn) {
    auto owned = std::make_shared<int>(1);
    UniqueFunction<int()> function([owned] { return *owned; });

    function = UniqueFunction<int()>([] { return 4; });

    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_EQ(function(), 4);
}

}  // namespace
}  // namespace qel
