#include "quendo/platform/ExecutorTurn.h"

#include <utility>

namespace quendo {
namespace {

constinit thread_local ExecutorTurn* current = nullptr;

} // namespace

ExecutorTurn::~ExecutorTurn() = default;

ExecutorTurn::Scope::Scope(ExecutorTurn& turn) noexcept
    : m_previous(std::exchange(current, &turn)) {}

ExecutorTurn::Scope::~Scope() {
    current = m_previous;
}

OutsideExecutor::OutsideExecutor() noexcept : m_turn(std::exchange(current, nullptr)) {
    if (m_turn != nullptr)
        m_turn->giveAway();
}

OutsideExecutor::~OutsideExecutor() {
    if (m_turn == nullptr)
        return;
    m_turn->takeBack();
    current = m_turn;
}

} // namespace quendo
