#pragma once

#include "quendo/exception/Rethrowable.h"
#include "quendo/platform/IMsgIDException.h"

#include <string>
#include <utility>

namespace quendo::exception {

/// An error of the library whose text comes from the message catalogue, formatted when it is made.
template <class Derived>
class QUENDO_API MessageIDException : public platform::IMsgIDException,
                                      public Rethrowable<Derived> {
public:
    const char* what() const noexcept override { return Rethrowable<Derived>::what(); }
    std::string GetID() const override { return m_text; }
    const platform::MessageID& GetBaseMsgIDObj() const noexcept override { return m_id; }

protected:
    explicit MessageIDException(platform::MessageID id);

private:
    platform::MessageID m_id;
    std::string m_text;
};

} // namespace quendo::exception
