#pragma once

#include <exception>
#include <string>

namespace quendo::exception {

/// The message of an error that a state, a callback or a future holds: its what(), or "an unknown
/// error" when it is no std::exception. Empty for null.
inline std::string errorText(const std::exception_ptr& error) {
    if (error == nullptr)
        return {};
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& failure) {
        return failure.what();
    } catch (...) {
        return "an unknown error";
    }
}

} // namespace quendo::exception
