#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/StackTraceRecordingException.h"

#include <memory>
#include <string>

namespace quendo::exception {

/// Base of every error that the library throws itself. Back ends may throw their own as well.
///
/// An error held by a base reference is copied or thrown again without slicing: both operations
/// keep the message, the recorded stack, and the reason that `std::throw_with_nested` attached.
class QUENDO_API SourceControlException : public platform::StackTraceRecordingException {
public:
    using StackTraceRecordingException::StackTraceRecordingException;
    SourceControlException(const SourceControlException&) noexcept = default;
    SourceControlException& operator=(const SourceControlException&) noexcept = default;
    ~SourceControlException() override;

    virtual std::unique_ptr<SourceControlException> clone() const;
    [[noreturn]] virtual void rethrow() const;
};

} // namespace quendo::exception
