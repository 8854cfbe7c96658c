#include "quendo/cache/RefreshReason.h"

#include <utility>

namespace quendo {
namespace {

constinit thread_local RefreshReason currentReason = RefreshReason::Client;

} // namespace

std::string_view toString(RefreshReason reason) noexcept {
    switch (reason) {
    case RefreshReason::Client:
        return "client";
    case RefreshReason::OwnOperation:
        return "own operation";
    case RefreshReason::FileEvent:
        return "file event";
    case RefreshReason::ExternalChange:
        return "external change";
    case RefreshReason::Dependency:
        return "dependency";
    case RefreshReason::EventsLost:
        return "events lost";
    case RefreshReason::RootReturned:
        return "root gone or back";
    case RefreshReason::Retry:
        return "retry";
    }
    return "unknown";
}

RefreshReasonScope::RefreshReasonScope(RefreshReason reason) noexcept
    : m_outer(std::exchange(currentReason, reason)) {}

RefreshReasonScope::~RefreshReasonScope() {
    currentReason = m_outer;
}

RefreshReason RefreshReasonScope::current() noexcept {
    return currentReason;
}

} // namespace quendo
