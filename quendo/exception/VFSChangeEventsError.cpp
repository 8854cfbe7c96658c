#include "quendo/exception/VFSChangeEventsError.h"

#include "quendo/platform/Logging.h"
#include "quendo/platform/Services.h"

#include <new>
#include <utility>

namespace quendo::exception {
namespace {

// A host's catalogue that fails must not replace the error by another one.
std::string formatted(const platform::MessageID& id) {
    try {
        return toUtf8(platform::services()->messages->format(id));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
        return id.text();
    }
}

} // namespace

template <class Derived>
MessageIDException<Derived>::MessageIDException(platform::MessageID id)
    : Rethrowable<Derived>(formatted(id)), m_id(std::move(id)), m_text(m_id.text()) {}

template class MessageIDException<shared_quendo::core::VFSChangeEventsError>;

} // namespace quendo::exception

namespace shared_quendo::core {

VFSChangeEventsError::VFSChangeEventsError(quendo::UString folder, Formatted)
    : MessageIDException({"shared_quendo:core", "VFSChangeEventsError", {std::move(folder)}}) {}

VFSChangeEventsError::~VFSChangeEventsError() = default;

} // namespace shared_quendo::core
