#include "quendo/adapter/QueryOrigin.h"

#include <utility>

namespace quendo {
namespace {

constinit thread_local const QueryOrigin* workingFor = nullptr;
constinit thread_local const QueryOrigin* triggeringFor = nullptr;

} // namespace

std::shared_ptr<const QueryOrigin> QueryOrigin::current() noexcept {
    return workingFor != nullptr ? workingFor->shared_from_this() : nullptr;
}

bool QueryOrigin::concerns(const std::shared_ptr<const QueryOrigin>& work) noexcept {
    return triggeringFor == nullptr || triggeringFor == work.get();
}

QueryOrigin::WorkScope::WorkScope(std::shared_ptr<const QueryOrigin> origin) noexcept
    : m_origin(std::move(origin)), m_outer(std::exchange(workingFor, m_origin.get())) {}

QueryOrigin::WorkScope::~WorkScope() {
    workingFor = m_outer;
}

QueryOrigin::TriggerScope::TriggerScope(const QueryOrigin& origin) noexcept
    : m_outer(std::exchange(triggeringFor, &origin)) {}

QueryOrigin::TriggerScope::~TriggerScope() {
    triggeringFor = m_outer;
}

} // namespace quendo
