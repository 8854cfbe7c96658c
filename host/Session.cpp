#include "host/Session.h"

#include "host/StandardStreams.h"

namespace quendo::host {

Session::Session()
    : m_interactor(std::make_shared<CMApplicationInteractor>()), m_interrupts(m_interactor),
      m_progress(m_interactor) {}

void Session::finish(std::string_view output) {
    m_progress.finish();
    m_interrupts.endAtOnce();
    writeOutput(output);
}

} // namespace quendo::host
