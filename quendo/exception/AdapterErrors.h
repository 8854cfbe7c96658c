#pragma once

#include "quendo/exception/Rethrowable.h"
#include "quendo/platform/Export.h"

/// What an adapter cannot do, one class for each thing that a host may want to treat differently.
/// Each message is one line of UTF-8 that names the path and says what to do; none holds a
/// password.
namespace quendo::exception {

/// The repository belongs to another user and is not listed as safe.
class QUENDO_API ForeignOwnerError : public Rethrowable<ForeignOwnerError> {
public:
    using Rethrowable::Rethrowable;
};

/// The repository has a format, or an extension of it, that the back end does not know.
class QUENDO_API UnsupportedFormatError : public Rethrowable<UnsupportedFormatError> {
public:
    using Rethrowable::Rethrowable;
};

/// The repository is there but cannot be read: damaged, incomplete, or not made of regular files.
class QUENDO_API DamagedRepositoryError : public Rethrowable<DamagedRepositoryError> {
public:
    using Rethrowable::Rethrowable;
};

/// A program that the adapter needs is missing, too old, hangs or answers nonsense.
class QUENDO_API ToolError : public Rethrowable<ToolError> {
public:
    using Rethrowable::Rethrowable;
};

/// The operation was stopped through the interactor's termination trigger.
class QUENDO_API OperationCancelledError : public Rethrowable<OperationCancelledError> {
public:
    using Rethrowable::Rethrowable;
};

/// The adapter does not offer this operation.
class QUENDO_API NotAvailableError : public Rethrowable<NotAvailableError> {
public:
    using Rethrowable::Rethrowable;
};

/// The back end refused the operation or failed in it; the message holds its own words.
class QUENDO_API OperationFailedError : public Rethrowable<OperationFailedError> {
public:
    using Rethrowable::Rethrowable;
};

} // namespace quendo::exception
