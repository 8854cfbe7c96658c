#pragma once

#include "quendo/platform/Export.h"
#include "quendo/platform/Rethrowable.h"
#include "quendo/platform/UString.h"

#include <cstddef>
#include <variant>
#include <vector>

namespace quendo::platform {

/// A value of the host's scripting language: a matrix of strings or of numbers, column after
/// column. A plain value.
class QUENDO_API HostArray {
public:
    /// No strings: 0 rows, one column.
    HostArray() = default;

    /// One string; one number.
    explicit HostArray(UString string);
    explicit HostArray(double number);

    /// @throws exception::InvalidArgumentError when there are not rows * columns elements
    HostArray(std::size_t rows, std::size_t columns, std::vector<UString> strings);
    HostArray(std::size_t rows, std::size_t columns, std::vector<double> numbers);

    std::size_t rows() const noexcept { return m_rows; }
    std::size_t columns() const noexcept { return m_columns; }
    std::size_t size() const noexcept { return m_rows * m_columns; }
    bool isString() const noexcept { return m_elements.index() == 0; }

    /// @throws std::bad_variant_access when the elements are of the other type
    const std::vector<UString>& strings() const { return std::get<0>(m_elements); }
    const std::vector<double>& numbers() const { return std::get<1>(m_elements); }

private:
    std::size_t m_rows = 0;
    std::size_t m_columns = 1;
    std::variant<std::vector<UString>, std::vector<double>> m_elements;
};

/// What a built-in function throws when it is called in a way that it cannot be.
class QUENDO_API HostCallError : public exception::Rethrowable<HostCallError> {
public:
    using Rethrowable::Rethrowable;
};
class QUENDO_API TooManyOutputsError
    : public exception::Rethrowable<TooManyOutputsError, HostCallError> {
public:
    TooManyOutputsError();
};
class QUENDO_API TooManyInputsError
    : public exception::Rethrowable<TooManyInputsError, HostCallError> {
public:
    TooManyInputsError();
};
class QUENDO_API TooFewInputsError
    : public exception::Rethrowable<TooFewInputsError, HostCallError> {
public:
    TooFewInputsError();
};

} // namespace quendo::platform
