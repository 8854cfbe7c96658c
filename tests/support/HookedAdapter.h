#pragma once

#include "quendo/adapter/CMAdapterDecorator.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/Testing.h"

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

/// Notes the operations that change something, and does nothing else about them.
class NotingAdapter : public CMAdapterDecorator {
public:
    using Paths = std::vector<Path>;
    using Note = std::function<void(const std::string& operation, const Paths& paths)>;

    NotingAdapter(std::unique_ptr<CMAdapter> adapter, Note note)
        : CMAdapterDecorator(std::move(adapter)), m_note(std::move(note)) {}

    void checkin(const Path& file, const UString&) const override { m_note("checkin", {file}); }
    void checkin(const Paths& files, const UString&) const override { m_note("checkins", files); }
    void addFiles(const Paths& files) const override { m_note("addFiles", files); }
    void removeFiles(const Paths& files) const override { m_note("removeFiles", files); }
    void moveFile(const Path& from, const Path& to) const override {
        m_note("moveFile", {from, to});
    }
    void uncheckout(const Paths& files) const override { m_note("uncheckout", files); }
    void discardChanges() const override { m_note("discardChanges", {}); }
    void checkout(const Paths& files) const override { m_note("checkout", files); }
    void resolveConflict(const Path& file) const override { m_note("resolveConflict", {file}); }

private:
    const Note m_note;
};

} // namespace quendo::test
