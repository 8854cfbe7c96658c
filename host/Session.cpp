#include "host/Session.h"

#include "host/StandardStreams.h"

namespace quendo::host {

Session::Session(const std::shared_ptr<CMInteractor>& interactor)
    : m_interrupts(interactor), m_progress(interactor) {}

void Session::finishFirst(std::string_view output) {
    m_progress.finish();
    writeOutput(output);
}

void Session::finish(std::string_view output) {
    m_progress.finish();
    m_interrupts.endAtOnce();
    writeOutput(output);
}

} // namespace quendo::host
