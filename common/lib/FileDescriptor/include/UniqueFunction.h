#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace qel {

template <typename Signature>
class UniqueFunction;

namespace unique_function_detail {

template <typename Callable>
inline constexpr bool kCanBeEmpty =
    std::is_pointer_v<Callable> || std::is_member_pointer_v<Callable>;
template <typename Signature>
inline constexpr bool kCanBeEmpty<std::function<Signature>> = true;
template <typename Signature>
inline constexpr bool kCanBeEmpty<UniqueFunction<Signature>> = true;

}  // namespace unique_function_detail

/// A callable of any type behind one type, as `std::function` is, but movable only: what it holds
/// need not be copyable.
///
/// Thread use: as the callable it holds; the object itself belongs to one thread at a time.
template <typename Result, typename... Args>
class UniqueFunction<Result(Args...)> {
public:
    UniqueFunction() noexcept = default;

    /// Takes over `callable`; holds nothing if that is a null pointer or an empty function.
    template <typename Callable,
              typename = std::enable_if_t<!std::is_same_v<std::decay_t<Callable>, UniqueFunction> &&
                                          std::is_invocable_r_v<Result, Callable&, Args...>>>
    UniqueFunction(Callable&& callable)  // NOLINT(google-explicit-constructor): as std::function
        : target_(IsEmpty(callable) ? nullptr
                                    : std::make_unique<Target<std::decay_t<Callable>>>(
                                          std::in_place, std::forward<Callable>(callable))) {}

    UniqueFunction(UniqueFunction&&) noexcept = default;
    UniqueFunction& operator=(UniqueFunction&&) noexcept = default;
    UniqueFunction(const UniqueFunction&) = delete;
    UniqueFunction& operator=(const UniqueFunction&) = delete;
    ~UniqueFunction() = default;

    /// True if there is something to call.
    explicit operator bool() const noexcept { return target_ != nullptr; }

    /// Calls the callable.
    /// @throws std::bad_function_call  if there is none
    Result operator()(Args... args) {
        if (!target_) {
            throw std::bad_function_call();
        }
        return target_->Call(std::forward<Args>(args)...);
    }

private:
    class TargetIF {
    public:
        TargetIF() = default;
        virtual ~TargetIF() = default;
        TargetIF(const TargetIF&) = delete;
        TargetIF& operator=(const TargetIF&) = delete;
        virtual Result Call(Args... args) = 0;
    };

    template <typename Callable>
    class Target final : public TargetIF {
    public:
        template <typename Source>
        Target(std::in_place_t /*apart from a copy*/, Source&& source)
            : callable_(std::forward<Source>(source)) {}
        Result Call(Args... args) override {
            if constexpr (std::is_void_v<Result>) {
                std::invoke(callable_, std::forward<Args>(args)...);
            } else {
                return std::invoke(callable_, std::forward<Args>(args)...);
            }
        }

    private:
        Callable callable_;
    };

    template <typename Callable>
    static bool IsEmpty(const Callable& callable) {
        if constexpr (unique_function_detail::kCanBeEmpty<Callable>) {
            return !static_cast<bool>(callable);
        } else {
            return false;
        }
    }

    std::unique_ptr<TargetIF> target_;
};

}  // namespace qel
