#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Rethrowable.h"

namespace quendo::exception {

/// An argument that the called operation cannot use: a null pointer, a path that is not absolute,
/// an empty client identifier. The message says what to give instead. Nothing was done.
class QUENDO_API InvalidArgumentError : public Rethrowable<InvalidArgumentError> {
public:
    using Rethrowable::Rethrowable;
};

} // namespace quendo::exception
