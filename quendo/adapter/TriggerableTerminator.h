#pragma once

#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMInteractor.h"
#include "quendo/adapter/ListenerSignal.h"
#include "quendo/platform/Export.h"

#include <boost/signals2/connection.hpp>

#include <map>
#include <string>

namespace quendo {

/// Both faces of termination, joined by one signal.
class QUENDO_API TriggerableTerminator : public Terminator, public TerminationTrigger {
public:
    explicit TriggerableTerminator(ListenerFailure onFailure) : m_signal(onFailure) {}
    ~TriggerableTerminator() override;

    boost::signals2::connection connect(const Slot& slot) override;
    void keepConnection(const std::string& key, boost::signals2::connection connection) override;
    void removeConnection(const std::string& key) override;
    void trigger() override;

private:
    ListenerSignal<void()> m_signal;
    std::map<std::string, boost::signals2::scoped_connection> m_connections;
};

} // namespace quendo
