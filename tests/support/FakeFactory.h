#pragma once

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/platform/FactorySources.h"
#include "tests/support/MemoryAdapter.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace quendo::test {

/// Notes the operations that change something, and does nothing else about them.
class NotingAdapter : public CMAdapterDecorator {
public:
    using Paths = std::vector<Path>;
    using Note = std::function<void(const std::string& operation, const Paths& paths)>;

    NotingAdapter(std::unique_ptr<CMAdapter> adapter, Note note)
        : CMAdapterDecorator(std::move(adapter)), m_note(std::move(note)) {}

    void checkin(const Paths& files, const UString&) const override { m_note("checkin", files); }
    void addFiles(const Paths& files) const override { m_note("addFiles", files); }
    void removeFiles(const Paths& files) const override { m_note("removeFiles", files); }
    void moveFile(const Path& from, const Path& to) const override {
        m_note("moveFile", {from, to});
    }
    void uncheckout(const Paths& files) const override { m_note("uncheckout", files); }

private:
    const Note m_note;
};

/// Manages the folders that hold ".fake", by adapters without a disk. Threads: any.
class FakeFactory : public CMAdapterFactory {
public:
    std::function<bool(const Path&)> canManageHook = [](const Path& folder) {
        return std::filesystem::exists(folder.toNative() + "/.fake");
    };
    std::function<std::unique_ptr<CMAdapter>(const Path&)> createHook = [this](const Path& folder) {
        return makeMemoryAdapter(copyAt(folder));
    };
    std::atomic<int> made = 0;

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
    bool canManage(const Path& folder) override { return canManageHook(folder); }
    UString getMetadataName() const override { return u".fake"; }
    UString getProblem() const override { return {}; }
    std::string getID() const override { return "fake"; }

private:
    std::mutex m_mutex;
    std::map<Path, std::shared_ptr<MemoryWorkingCopy>> m_copies;
};

struct FakeSources : platform::FactorySources {
    explicit FakeSources(std::vector<std::shared_ptr<CMAdapterFactory>> factories)
        : installed(std::move(factories)) {}
    std::vector<std::shared_ptr<CMAdapterFactory>> getInstalledFactories() override {
        return installed;
    }
    std::vector<std::unique_ptr<CMAdapterFactory>> getJavaFactories() override { return {}; }

    const std::vector<std::shared_ptr<CMAdapterFactory>> installed;
};

} // namespace quendo::test
