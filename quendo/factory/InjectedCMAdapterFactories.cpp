#include "quendo/factory/InjectedCMAdapterFactories.h"

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/ReentrantReadWriteLock.h"

#include <cstdlib>
#include <iterator>
#include <list>
#include <utility>

namespace quendo {

using Factories = std::list<std::shared_ptr<CMAdapterFactory>>;

struct InjectedCMAdapterFactories::Impl {
    ReentrantReadWriteLock lock;
    Factories factories; // a list: entries are moved out without allocating

    void clear() {
        Factories removed; // destroyed without the lock
        const auto scope = lock.write();
        removed.swap(factories);
    }

    void remove(const CMAdapterFactory* factory) {
        Factories removed; // destroyed without the lock
        const auto scope = lock.write();
        for (auto entry = factories.begin(); entry != factories.end();) {
            const auto next = std::next(entry);
            if (entry->get() == factory)
                removed.splice(removed.end(), factories, entry);
            entry = next;
        }
    }
};

InjectedCMAdapterFactories::InjectedCMAdapterFactories() : m_impl(std::make_shared<Impl>()) {}
InjectedCMAdapterFactories::~InjectedCMAdapterFactories() = default;

std::function<void()>
InjectedCMAdapterFactories::inject(std::shared_ptr<CMAdapterFactory> factory) {
    if (factory == nullptr)
        throw exception::InvalidArgumentError("inject: there is no factory to add");
    // The remover is made first: whatever fails leaves the list as it was. It knows an owned
    // factory weakly beside its address, because another one may stand at that address later.
    std::function<void()> remover = [list = std::weak_ptr(m_impl), weak = std::weak_ptr(factory),
                                     isOwned = factory.use_count() != 0, address = factory.get()] {
        const auto alive = weak.lock();
        if (const auto impl = list.lock(); impl != nullptr && (alive != nullptr || !isOwned))
            impl->remove(address);
    };
    Factories entry{std::move(factory)};
    const auto scope = m_impl->lock.write();
    m_impl->factories.splice(m_impl->factories.end(), entry);
    return remover;
}

std::vector<std::shared_ptr<CMAdapterFactory>> InjectedCMAdapterFactories::getFactories() const {
    const auto scope = m_impl->lock.read();
    return {m_impl->factories.begin(), m_impl->factories.end()};
}

void InjectedCMAdapterFactories::clear() {
    m_impl->clear();
}

InjectedCMAdapterFactories& getInjectedCMAdapterFactoriesInstance() {
    // Threads of the library look for factories until the process is gone, so the list itself stays
    // and only lets its factories go when the process ends.
    static auto& instance = []() -> InjectedCMAdapterFactories& {
        auto& made = *new InjectedCMAdapterFactories;
        ::on_exit([](int, void* list) { static_cast<InjectedCMAdapterFactories*>(list)->clear(); },
                  &made);
        return made;
    }();
    return instance;
}

} // namespace quendo
