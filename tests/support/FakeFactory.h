#pragma once

#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/platform/FactorySources.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/Testing.h"

namespace quendo::test {

/// Manages the folders that hold ".fake", by adapters without a disk. Threads: any.
class FakeFactory : public CMAdapterFactory {
public:
    explicit FakeFactory(std::string id = "fake") : m_id(std::move(id)) {}

    std::function<bool(const Path&)> canManageHook = [](const Path& folder) {
        return std::filesystem::exists(folder.toNative() + "/.fake");
    };
    std::function<std::unique_ptr<CMAdapter>(const Path&)> createHook = [this](const Path& folder) {
        return makeMemoryAdapter(copyAt(folder));
    };
    std::atomic<int> made = 0, asked = 0;

    std::shared_ptr<MemoryWorkingCopy> copyAt(const Path& root) {
        const std::lock_guard lock(m_mutex);
        auto& copy = m_copies[root];
        if (copy == nullptr)
            copy = std::make_shared<MemoryWorkingCopy>(root);
        return copy;
    }

    std::unique_ptr<CMAdapter> createAdapter(const Path& folder,
                                             std::shared_ptr<CMApplicationInteractor>) override {
        ++made;
        return createHook(folder);
    }
    UString getSystemName() const override { return u"Fake"; }
    bool canManage(const Path& folder) override {
        ++asked;
        return canManageHook(folder);
    }
    UString getMetadataName() const override { return u".fake"; }
    UString getProblem() const override { return {}; }
    std::string getID() const override { return m_id; }

private:
    const std::string m_id;
    std::mutex m_mutex;
    std::map<Path, std::shared_ptr<MemoryWorkingCopy>> m_copies;
};

struct FakeSources : platform::FactorySources {
    template <class... Factories>
    explicit FakeSources(const Factories&... factories) : installed{factories...} {}
    std::vector<std::shared_ptr<CMAdapterFactory>> getInstalledFactories() override {
        ++installedAsked;
        return failing ? throw std::domain_error("installed") : installed;
    }
    std::vector<std::unique_ptr<CMAdapterFactory>> getJavaFactories() override {
        ++javaAsked;
        std::vector<std::unique_ptr<CMAdapterFactory>> result;
        for (const auto& id : java) {
            auto made = std::make_unique<FakeFactory>(id);
            made->canManageHook = [raw = made.get()](const Path&) {
                return raw->shared_from_this() != nullptr;
            };
            result.push_back(std::move(made));
        }
        return result;
    }

    std::vector<std::shared_ptr<CMAdapterFactory>> installed;
    std::vector<std::string> java; ///< these manage every folder
    bool failing = false;
    std::atomic<int> installedAsked = 0, javaAsked = 0;
};

} // namespace quendo::test
