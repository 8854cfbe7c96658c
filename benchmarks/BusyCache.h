#pragma once

#include "benchmarks/BigTree.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/cache/CMStatusCacheChanges.h"
#include "quendo/cache/JobCombiningCMStatusCache.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace quendo::benchmark {

/// A cache above a BigTreeAdapter.
struct Cache {
    explicit Cache(const BigTree& tree, bool loads = true)
        : adapter(std::make_shared<BigTreeAdapter>(tree)) {
        if (loads)
            status->refreshAll();
    }
    StatusListing list() const {
        return dynamic_cast<CMStatusCacheChanges&>(*status).listStatuses(BigTree::root());
    }
    const std::shared_ptr<BigTreeAdapter> adapter;
    const std::shared_ptr<CMStatusCache> status =
        createJobCombiningCache(adapter, std::make_shared<CMApplicationInteractor>());
};

struct LoadCounts {
    std::atomic<std::size_t> files = 0, folders = 0, listings = 0;
};

/// Three threads that refresh and list without pause, while it lives.
class Load {
public:
    Load(const Cache& cache, const std::vector<Path>& paths, const Path& folder,
         LoadCounts& counts) {
        // Each of some thousands of files once, then each again with another state.
        run([&, round = 1U, next = std::size_t{0}]() mutable {
            cache.adapter->fileRound = round;
            cache.status->refreshCMStatuses({paths[next]})->wait();
            next += 97;
            if (next >= paths.size()) {
                next = 0;
                ++round;
            }
            ++counts.files;
        });
        run([&, folder] {
            ++cache.adapter->folderRound;
            cache.status->refreshFolder(folder)->wait();
            ++counts.folders;
        });
        run([&] {
            cache.status->getCachedFiles();
            cache.list();
            counts.listings += 2;
        });
    }
    ~Load() {
        m_stop = true;
        for (auto& thread : m_threads)
            thread.join();
    }

private:
    template <class Step>
    void run(Step step) {
        m_threads.emplace_back([this, step]() mutable {
            while (!m_stop)
                step();
        });
    }

    std::atomic<bool> m_stop = false;
    std::vector<std::thread> m_threads;
};

} // namespace quendo::benchmark
