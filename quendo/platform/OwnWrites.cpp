#include "quendo/platform/OwnWrites.h"

#include <utility>

namespace quendo {
namespace {

constinit thread_local const std::shared_ptr<OwnWrites>* ofThisThread = nullptr;

} // namespace

OwnWrites::~OwnWrites() = default;

std::shared_ptr<OwnWrites> OwnWrites::current() noexcept {
    return ofThisThread != nullptr ? *ofThisThread : nullptr;
}

OwnWrites::Scope::Scope(std::shared_ptr<OwnWrites> writes) noexcept
    : m_writes(std::move(writes)), m_outer(std::exchange(ofThisThread, &m_writes)) {}

OwnWrites::Scope::~Scope() {
    ofThisThread = m_outer;
}

OwnWrites::Span::Span(Footprint footprint) noexcept : m_writes(current()) {
    if (m_writes != nullptr)
        m_writes->begin(std::move(footprint));
}

OwnWrites::Span::~Span() {
    if (m_writes != nullptr)
        m_writes->end();
}

void OwnWrites::Span::fail() noexcept {
    if (m_writes != nullptr)
        m_writes->refine();
}

} // namespace quendo
