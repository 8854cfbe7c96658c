#pragma once

#include "quendo/platform/Export.h"

#include <functional>
#include <memory>
#include <vector>

namespace quendo {

class CMAdapterFactory;

/// Factories added while the process runs; they go before all others. One instance a process
/// (getInjectedCMAdapterFactoriesInstance). Any thread; no lock is held while a factory is called
/// or destroyed, so a factory may inject or remove from inside its own operations.
class QUENDO_API InjectedCMAdapterFactories {
public:
    InjectedCMAdapterFactories();
    ~InjectedCMAdapterFactories();
    InjectedCMAdapterFactories(const InjectedCMAdapterFactories&) = delete;
    InjectedCMAdapterFactories& operator=(const InjectedCMAdapterFactories&) = delete;

    /// Appends `factory`. One that its shared_ptr does not own (an alias without owner, of a static
    /// for example) must stay until it was removed and nobody calls it any more.
    /// @return removes every entry of that factory; may be called more than once, and after the
    ///         list has gone. Dropping it without a call leaves the factory in.
    /// @throws exception::InvalidArgumentError for a null pointer.
    std::function<void()> inject(std::shared_ptr<CMAdapterFactory> factory);

    /// A copy of the list, in the order of injection.
    std::vector<std::shared_ptr<CMAdapterFactory>> getFactories() const;

    /// Lets go of all factories. Removers find nothing afterwards.
    void clear();

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

/// The list of the process, made on first use. When the process ends (exit(), or the end of main())
/// it lets go of its factories, before the destructors of statics that were there at the first use;
/// a thread that asks later finds an empty list. A factory that has to go earlier must be removed.
QUENDO_API InjectedCMAdapterFactories& getInjectedCMAdapterFactoriesInstance();

} // namespace quendo
