#include "host/Session.h"

#include "host/StandardStreams.h"

namespace quendo::host {

Session::Session(const std::vector<std::shared_ptr<CMInteractor>>& interactors)
    : m_interrupts(interactors), m_progress(interactors) {}

Session::Session(const std::shared_ptr<CMInteractor>& interactor)
    : Session(std::vector{interactor}) {}

void Session::note(std::string_view message) {
    m_progress.note(message);
}

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
