#pragma once

#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/SteppedDetection.h"

namespace quendo {

/// A cache over a working copy in memory whose strand runs when the test says so, on its thread.
class CacheFixture : public testing::Test {
protected:
    CacheFixture() {
        copy->inCall = [this](const auto&...) { inQuery(); };
    }

    Path at(const std::string& name) const {
        return name == "." ? copy->root : copy->root.child(name);
    }
    std::string nameOf(const Path& path) const {
        return path.lexicallyRelative(copy->root).toUtf8();
    }
    std::vector<std::string> namesOf(std::vector<Path> paths) const {
        std::vector<std::string> names;
        for (const auto& path : paths)
            names.push_back(nameOf(path));
        std::ranges::sort(names);
        return names;
    }

    void set(const std::string& name, LocalStatus status = LocalStatus::Unmodified) {
        copy->set(at(name), status);
    }
    std::optional<LocalStatus> cached(const std::string& name) const {
        const auto state = cache->getCachedStatus(at(name));
        return state ? std::optional(state->getState()) : std::nullopt;
    }

    /// Runs what is queued on the strand, until nothing is.
    void drain() {
        while (executors.strand().runOne()) {
        }
    }
    std::shared_ptr<JobCombiningCMStatusCache> makeCache() {
        const std::shared_ptr<CMAdapter> adapter = test::makeMemoryAdapter(copy);
        cachedAdapter = adapter;
        return std::make_shared<JobCombiningCMStatusCache>(adapter, interactor);
    }
    void refresh(const std::string& folder) {
        const auto task = cache->refreshFolder(at(folder));
        drain();
        task->wait();
    }

    test::SteppedDetection executors;
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(Path(u"/r/copy"));
    struct Interactor : CMApplicationInteractor {
        TerminationTrigger& getTerminationTrigger() override {
            asked();
            return CMApplicationInteractor::getTerminationTrigger();
        }
        std::function<void()> asked = [] {};
    };
    const std::shared_ptr<Interactor> interactor = std::make_shared<Interactor>();
    std::vector<std::string>& queries = copy->calls;
    std::function<void()> inQuery = [] {};
    std::weak_ptr<void> cachedAdapter; ///< of the cache made last
    std::shared_ptr<JobCombiningCMStatusCache> cache = makeCache();
};

} // namespace quendo
