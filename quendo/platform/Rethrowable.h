#pragma once

#include "quendo/platform/SourceControlException.h"

#include <exception>
#include <memory>

namespace quendo::exception {

/// Gives an error class clone() and rethrow() of its own type:
/// `class MyError : public Rethrowable<MyError>`.
template <class Derived, class Base = SourceControlException>
class QUENDO_API Rethrowable : public Base {
public:
    using Base::Base;

    std::unique_ptr<SourceControlException> clone() const override {
        if (const auto* reason = dynamic_cast<const std::nested_exception*>(this))
            return std::make_unique<WithReason>(self(), *reason);
        return std::make_unique<Derived>(self());
    }

    [[noreturn]] void rethrow() const override {
        // throw_with_nested throws a class derived from the error; copying only the error would
        // cut the reason off.
        if (const auto* reason = dynamic_cast<const std::nested_exception*>(this))
            throw WithReason(self(), *reason);
        throw Derived(self());
    }

private:
    const Derived& self() const noexcept { return static_cast<const Derived&>(*this); }

    template <class Error>
    struct QUENDO_API WithReasonOf final : Error, std::nested_exception {
        WithReasonOf(const Error& error, const std::nested_exception& reason)
            : Error(error), std::nested_exception(reason) {}
    };
    using WithReason = WithReasonOf<Derived>;
};

} // namespace quendo::exception
