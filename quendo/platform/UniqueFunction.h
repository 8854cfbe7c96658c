#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace quendo {

template <class Signature>
class UniqueFunction;

/// A callable of any kind, moved but never copied: what std::function cannot hold.
/// An empty one must not be called.
template <class Result, class... Arguments>
class UniqueFunction<Result(Arguments...)> {
public:
    UniqueFunction() noexcept = default;

    template <class Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, UniqueFunction> &&
             std::is_invocable_r_v<Result, std::decay_t<Callable>&, Arguments...>)
        UniqueFunction(Callable&& callable)
        : m_target(
              std::make_unique<Target<std::decay_t<Callable>>>(std::forward<Callable>(callable))) {}

    Result operator()(Arguments... arguments) {
        return m_target->call(std::forward<Arguments>(arguments)...);
    }

    explicit operator bool() const noexcept { return m_target != nullptr; }

private:
    struct AnyTarget {
        virtual ~AnyTarget() = default;
        virtual Result call(Arguments...) = 0;
    };

    template <class Callable>
    struct Target final : AnyTarget {
        template <class Source>
        explicit Target(Source&& source) : callable(std::forward<Source>(source)) {}
        Result call(Arguments... arguments) override {
            return callable(std::forward<Arguments>(arguments)...);
        }
        Callable callable;
    };

    std::unique_ptr<AnyTarget> m_target;
};

} // namespace quendo
