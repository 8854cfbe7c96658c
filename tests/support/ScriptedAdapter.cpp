#include "tests/support/ScriptedAdapter.h"

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/signals2/connection.hpp>

#include <atomic>
#include <set>
#include <unistd.h>

namespace quendo::test {
namespace {

namespace fs = std::filesystem;
using States = std::map<Path, FileState>;
using Paths = std::vector<Path>;
using Revisions = std::vector<std::unique_ptr<Revision>>;

Path toPath(const fs::path& path) {
    return Path::fromNative(path.native());
}
bool standsAt(const fs::path& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}
bool isFolder(const fs::path& path) {
    std::error_code error;
    return fs::is_directory(fs::symlink_status(path, error));
}

/// What is not done here is not available.
class ScriptedAdapter : public CMAdapterDecorator {
public:
    ScriptedAdapter(const fs::path& root, std::shared_ptr<CMApplicationInteractor> interactor)
        : CMAdapterDecorator(makeMemoryAdapter(std::make_shared<MemoryWorkingCopy>(toPath(root)))),
          m_root(root), m_fake(root / ".fake"), m_interactor(std::move(interactor)) {}

    UserInfo getUserInfo() const override { return {u"Ada Tester", u"ada@example.org"}; }
    bool isFeatureSupported(SupportedFeature feature) const override {
        using enum SupportedFeature;
        return std::set{AddFiles, RemoveFiles, ListRevisions, ExportRevision,
                        SupportedFeature::ConflictRevisions}
            .contains(feature);
    }

    void addFiles(const Paths& files) const override {
        for (const auto& file : files)
            writeFile(m_fake / "added" / relative(file), "");
    }
    void removeFiles(const Paths& files) const override {
        for (const auto& file : files) {
            writeFile(m_fake / "deleted" / relative(file), "");
            fs::remove(file.toNative());
        }
    }

    States getStatus(const Paths& files) const override { return scan(files, true); }
    States getStatus(const Path& path, bool includeUntracked) const override {
        return scan({path}, includeUntracked);
    }

    Revisions
    listRevisions(const Path& file,
                  std::optional<std::reference_wrapper<const Revision>> from) const override {
        Revisions result;
        const int newest = from ? numberOf(from->get().id) : std::numeric_limits<int>::max();
        for (int number = 1; number <= newest && standsAt(revisionFolder(number)); ++number)
            if (standsAt(revisionFolder(number) / "files" / relative(file)))
                result.insert(result.begin(), revision(file, number));
        return result;
    }
    std::unique_ptr<Revision> findRevision(const Path& file, const UString& id) const override {
        return revision(file, numberOf(id));
    }
    std::unique_ptr<Revision> getCurrentRevision(const Path& file) const override {
        auto all = listRevisions(file, std::nullopt);
        return all.empty() ? nullptr : std::move(all.front());
    }
    Revisions getParentRevisions(const Revision& revision) const override {
        auto all = listRevisions(revision.path, revision);
        Revisions result;
        if (all.size() > 1)
            result.push_back(std::move(all[1]));
        return result;
    }
    void exportRevision(const Path& file, const Revision& revision,
                        const Path& target) const override {
        fs::path source = toUtf8(revision.contentID);
        if (source.empty()) {
            const auto all = listRevisions(file, revision);
            if (all.empty())
                throw exception::OperationFailedError(file.toUtf8() + ": not in that revision");
            source = revisionFolder(numberOf(all.front()->id)) / "files" / relative(file);
        }
        fs::copy_file(source, target.toNative());
    }
    ConflictRevisions getConflictRevisions(const Path& file) const override {
        const auto side = [&](const char* name) {
            auto result = std::make_unique<Revision>();
            const auto content = m_fake / "conflicts" / name / relative(file);
            result->path = file;
            result->contentID = toUString(content.native());
            return standsAt(content) ? std::move(result) : nullptr;
        };
        return {side("base"), side("ours"), side("theirs")};
    }

private:
    fs::path relative(const Path& path) const {
        return fs::path(path.toNative()).lexically_relative(m_root);
    }
    fs::path revisionFolder(int number) const { return m_fake / "log" / std::to_string(number); }
    int numberOf(const UString& id) const {
        const int number = std::atoi(toUtf8(id).c_str());
        if (number < 1 || !standsAt(revisionFolder(number)))
            throw exception::OperationFailedError("no revision " + toUtf8(id));
        return number;
    }
    std::unique_ptr<Revision> revision(const Path& file, int number) const {
        auto result = std::make_unique<Revision>();
        result->id = toUString(std::to_string(number));
        result->author = u"Ada Tester";
        result->message = toUString(readFile(revisionFolder(number) / "message"));
        result->date = std::chrono::system_clock::time_point(std::chrono::seconds(number));
        result->path = file;
        return result;
    }

    States scan(const Paths& paths, bool untracked) const {
        const auto origin = QueryOrigin::current();
        std::atomic<bool> cancelled{origin != nullptr && origin->isCancelled()};
        const boost::signals2::scoped_connection connection =
            m_interactor->getTerminator().connect([&cancelled, origin] {
                if (QueryOrigin::concerns(origin))
                    cancelled = true;
            });
        try {
            m_interactor->getProgressIndicator().report(u"Scanning", 0);
        } catch (...) {
        }
        auto all = trackedStates();
        if (untracked)
            addUntracked(all);
        States result;
        for (const auto& path : paths) {
            if (path != getRootFolder() && !path.isBelow(getRootFolder()))
                continue;
            for (const auto& [each, state] : all)
                if (each == path || each.isBelow(path))
                    result.emplace(each, state);
            // An ignored tree is one entry, but what lies in it can be asked for.
            for (auto above = path; above.isBelow(getRootFolder()); above = above.parentPath())
                if (const auto found = all.find(above);
                    standsAt(path.toNative()) && found != all.end() &&
                    found->second.getState() == LocalStatus::Ignored)
                    result.try_emplace(path, LocalStatus::Ignored, isFolder(path.toNative()));
        }
        if (cancelled)
            throw exception::OperationCancelledError(m_root.native() + ": cancelled");
        return result;
    }

    States trackedStates() const {
        States result;
        for (const auto& tree : {m_fake / "base", m_fake / "added"}) {
            if (!isFolder(tree))
                continue;
            for (const auto& entry : fs::recursive_directory_iterator(tree)) {
                const auto name = entry.path().lexically_relative(tree);
                if (!entry.is_directory())
                    result.emplace(toPath(m_root / name), stateOf(name));
                else if (isFolder(m_root / name))
                    result.emplace(toPath(m_root / name), FileState(LocalStatus::Unmodified, true));
            }
        }
        result.emplace(getRootFolder(), FileState(LocalStatus::Unmodified, true));
        return result;
    }

    void addUntracked(States& states) const {
        for (fs::recursive_directory_iterator it(m_root), end; it != end; ++it) {
            const auto mark = m_fake / "ignored" / it->path().lexically_relative(m_root);
            const bool ignored = standsAt(mark) && !isFolder(mark);
            const bool nested = standsAt(it->path() / ".fake");
            if (it->path() != m_fake)
                states.try_emplace(toPath(it->path()),
                                   nested    ? LocalStatus::External
                                   : ignored ? LocalStatus::Ignored
                                             : LocalStatus::NotUnderSourceControl,
                                   isFolder(it->path()));
            if (nested || ignored || it->path() == m_fake)
                it.disable_recursion_pending();
        }
    }

    FileState stateOf(const fs::path& file) const {
        const auto with = [](LocalStatus state, std::u16string_view name,
                             std::u16string_view value) {
            return FileState(state, false, {FileProperty(name, value)});
        };
        const bool onDisk = standsAt(m_root / file);
        if (standsAt(m_fake / "conflicts" / "ours" / file))
            return with(LocalStatus::Conflicted, property::conflict, u"both modified");
        if (standsAt(m_fake / "deleted" / file))
            return with(LocalStatus::Deleted, property::columns, onDisk ? u"D?" : u"D.");
        if (!onDisk)
            return with(LocalStatus::Missing, property::columns, u".D");
        if (standsAt(m_fake / "added" / file))
            return with(LocalStatus::Added, property::columns, u"A.");
        if (::access((m_root / file).c_str(), R_OK) != 0)
            return with(LocalStatus::Unknown, property::why, u"cannot be read");
        return readFile(m_root / file) == readFile(m_fake / "base" / file)
                   ? FileState(LocalStatus::Unmodified)
                   : with(LocalStatus::Modified, property::columns, u".M");
    }

    const fs::path m_root;
    const fs::path m_fake;
    const std::shared_ptr<CMApplicationInteractor> m_interactor;
};

} // namespace

bool ScriptedAdapterFactory::canManage(const Path& folder) {
    return isFolder(fs::path(folder.toNative()) / ".fake");
}

std::unique_ptr<CMAdapter>
ScriptedAdapterFactory::createAdapter(const Path& folder,
                                      std::shared_ptr<CMApplicationInteractor> interactor) {
    const auto root = fs::canonical(folder.toNative());
    if (!standsAt(root / ".fake" / "format") || readFile(root / ".fake" / "format") != "1")
        throw exception::DamagedRepositoryError(folder.toUtf8() + ": .fake/format is wrong");
    return std::make_unique<ScriptedAdapter>(root, std::move(interactor));
}

} // namespace quendo::test
