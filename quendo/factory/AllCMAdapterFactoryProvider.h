#pragma once

#include "quendo/factory/CMAdapterFactoryProvider.h"

namespace quendo {

/// Asks the injected factories, then the installed ones, then those of the Java layer; the first
/// that recognises the folder wins, and later lists are not even fetched. A factory that throws is
/// logged and passed over; what fetching a list throws reaches the caller.
///
/// Null as well when the setting "EnableSourceControl" of the group "kestro.sourcecontrol" is
/// false or cannot be read.
class QUENDO_API AllCMAdapterFactoryProvider : public CMAdapterFactoryProvider {
public:
    std::shared_ptr<CMAdapterFactory> provide(const Path& folder) const override;
};

} // namespace quendo
