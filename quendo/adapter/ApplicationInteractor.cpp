#include "quendo/adapter/ApplicationInteractor.h"

#include "quendo/adapter/CMInteractor.h"

namespace quendo {

Terminator::~Terminator() = default;
ProgressIndicator::~ProgressIndicator() = default;
StatusTrigger::~StatusTrigger() = default;
ApplicationInteractor::~ApplicationInteractor() = default;

TerminationTrigger::~TerminationTrigger() = default;
ProgressDispatcher::~ProgressDispatcher() = default;
StatusDispatcher::~StatusDispatcher() = default;
CMInteractor::~CMInteractor() = default;

} // namespace quendo
