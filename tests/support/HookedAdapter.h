#pragma once

#include "quendo/adapter/CMAdapterDecorator.h"

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace quendo::test {

/// One status query. A folder query names one path.
struct Query {
    std::vector<Path> paths;
    bool ofFolder = false;
    bool flag = false;
};

/// Shows every status query to the test before the wrapped adapter answers it; the test may throw,
/// or hold it up. Calls come on the thread of the query.
class HookedAdapter : public CMAdapterDecorator {
public:
    using Hook = std::function<void(const Query&)>;

    HookedAdapter(std::unique_ptr<CMAdapter> adapter, Hook hook)
        : CMAdapterDecorator(std::move(adapter)), m_hook(std::move(hook)) {}

    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
        m_hook({files, false, true});
        return CMAdapterDecorator::getStatus(files);
    }
    std::map<Path, FileState> getStatus(const Path& path, bool flag) const override {
        m_hook({{path}, true, flag});
        return CMAdapterDecorator::getStatus(path, flag);
    }

private:
    const Hook m_hook;
};

} // namespace quendo::test
