#include "quendo/platform/HostArray.h"

#include "quendo/platform/InvalidArgumentError.h"

#include <utility>

namespace quendo::platform {
namespace {

void checkShape(std::size_t rows, std::size_t columns, std::size_t elements) {
    const bool fits =
        columns == 0 ? elements == 0 : elements % columns == 0 && elements / columns == rows;
    if (!fits)
        throw exception::InvalidArgumentError(
            "an array needs as many elements as its rows and columns say");
}

} // namespace

HostArray::HostArray(UString string) : m_rows(1) {
    m_elements.emplace<0>().push_back(std::move(string));
}

HostArray::HostArray(double number) : m_rows(1), m_elements(std::vector<double>{number}) {}

HostArray::HostArray(std::size_t rows, std::size_t columns, std::vector<UString> strings)
    : m_rows(rows), m_columns(columns), m_elements(std::move(strings)) {
    checkShape(rows, columns, this->strings().size());
}

HostArray::HostArray(std::size_t rows, std::size_t columns, std::vector<double> numbers)
    : m_rows(rows), m_columns(columns), m_elements(std::move(numbers)) {
    checkShape(rows, columns, this->numbers().size());
}

TooManyOutputsError::TooManyOutputsError() : Rethrowable("Too many output arguments.") {}
TooManyInputsError::TooManyInputsError() : Rethrowable("Too many input arguments.") {}
TooFewInputsError::TooFewInputsError() : Rethrowable("Not enough input arguments.") {}

} // namespace quendo::platform
