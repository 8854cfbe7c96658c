#pragma once

#include "quendo/factory/CMAdapterFactoryProvider.h"

namespace quendo {

namespace platform {
struct Services;
}

/// Asks the injected factories, then the installed ones, then those of the Java layer; the first
/// that recognises the folder wins, and later lists are not even fetched. A factory that throws is
/// logged and passed over; what fetching a list throws reaches the caller.
///
/// Null as well when the setting "EnableSourceControl" of the group "kestro.sourcecontrol" is
/// false or cannot be read.
class QUENDO_API AllCMAdapterFactoryProvider : public CMAdapterFactoryProvider {
public:
    std::shared_ptr<CMAdapterFactory> provide(const Path& folder) const override;

    /// The same with the settings and the factory sources of these services. While a factory is
    /// asked, the calling thread's own services are in force.
    /// @param services as platform::completed() gives them; not null
    std::shared_ptr<CMAdapterFactory>
    provide(const Path& folder, const std::shared_ptr<const platform::Services>& services) const;
};

} // namespace quendo
