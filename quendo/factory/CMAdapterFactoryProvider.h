#pragma once

#include "quendo/platform/Export.h"

#include <memory>

namespace quendo {

class CMAdapterFactory;
class Path;

/// Chooses the adapter factory for a folder. Any thread.
class QUENDO_API CMAdapterFactoryProvider {
public:
    virtual ~CMAdapterFactoryProvider();

    /// The factory that recognises `folder` itself (parents are not looked at), or null.
    virtual std::shared_ptr<CMAdapterFactory> provide(const Path& folder) const = 0;
};

} // namespace quendo
