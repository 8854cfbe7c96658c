#include "quendo/platform/SourceControlException.h"

#include <exception>

namespace quendo::exception {
namespace {

struct WithReason final : SourceControlException, std::nested_exception {
    WithReason(const SourceControlException& error, const std::nested_exception& reason)
        : SourceControlException(error), std::nested_exception(reason) {}
};

} // namespace

SourceControlException::~SourceControlException() = default;

std::unique_ptr<SourceControlException> SourceControlException::clone() const {
    if (const auto* reason = dynamic_cast<const std::nested_exception*>(this))
        return std::make_unique<WithReason>(*this, *reason);
    return std::make_unique<SourceControlException>(*this);
}

void SourceControlException::rethrow() const {
    if (const auto* reason = dynamic_cast<const std::nested_exception*>(this))
        throw WithReason(*this, *reason);
    throw SourceControlException(*this);
}

} // namespace quendo::exception
