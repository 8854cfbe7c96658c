#include "tests/support/MemoryAdapter.h"

#include "quendo/adapter/IgnoreRuleEditor.h"

namespace quendo::test {
namespace {

using Paths = std::vector<Path>;
using Revisions = std::vector<std::unique_ptr<Revision>>;
using From = std::optional<std::reference_wrapper<const Revision>>;

class MemoryAdapter : public CMAdapter, public IgnoreRuleEditor {
public:
    explicit MemoryAdapter(std::shared_ptr<MemoryWorkingCopy> workingCopy)
        : m_copy(std::move(workingCopy)) {}

    std::map<Path, FileState> getStatus(const Paths& files) const override {
        note("files", files);
        return statesOf(files, true);
    }
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override {
        note(includeUntracked ? "folder+" : "folder", {path});
        return statesOf({path}, includeUntracked);
    }
    Path getRootFolder() const override { return m_copy->root; }
    std::vector<UString> getForbiddenFileNames() const override { return {u".fake", u".lock"}; }
    UString getRepositorySpecifier(const Path& path) const override {
        return UString(path.string());
    }
    UString getInitialCheckinMessage() const override { return u"initial"; }
    UserInfo getUserInfo() const override { return {u"name", u"email"}; }
    MetadataFolder getMetadataFolder() const override {
        return {m_copy->root / u".fake", [](const Path&) { return true; }};
    }
    std::vector<UString> getMetadataFiles() const override { return {u".metadata"}; }
    bool isFeatureSupported(SupportedFeature feature) const override {
        return feature == SupportedFeature::Checkout;
    }
    std::any getSubsystem(const std::type_info& type) override {
        if (type == typeid(IgnoreRuleEditor))
            return static_cast<IgnoreRuleEditor*>(this);
        return type == typeid(int) ? std::any(7) : std::any();
    }
    void setCredentialProvider(std::weak_ptr<CredentialProvider> provider) override {
        note(provider.expired() ? "no provider" : "provider", {});
    }

    void checkin(const Path& file, const UString& message) const override {
        note("checkin", {file}, message);
    }
    void checkin(const Paths& files, const UString& message) const override {
        note("checkins", files, message);
    }
    void addFiles(const Paths& files) const override { note("addFiles", files); }
    void removeFiles(const Paths& files) const override { note("removeFiles", files); }
    void moveFile(const Path& from, const Path& to) const override { note("moveFile", {from, to}); }
    void uncheckout(const Paths& files) const override { note("uncheckout", files); }
    void discardChanges() const override { note("discardChanges", {}); }
    void checkout(const Paths& files) const override { note("checkout", files); }
    void resolveConflict(const Path& file) const override { note("resolveConflict", {file}); }
    void ignoreFile(const Path& file) override { note("ignoreFile", {file}); }
    Paths ignoreFiles(const Paths& files) override {
        note("ignoreFiles", files);
        return {m_copy->root / u".metadata"};
    }
    Revisions listRevisions(const Path& file, From from) const override {
        note("listRevisions", {file}, from ? from->get().id : UString());
        return Revisions(2);
    }
    std::unique_ptr<Revision> findRevision(const Path& file, const UString& id) const override {
        note("findRevision", {file}, id);
        return std::make_unique<Revision>();
    }
    std::unique_ptr<Revision> getCurrentRevision(const Path& file) const override {
        note("getCurrentRevision", {file});
        return std::make_unique<Revision>();
    }
    Revisions getParentRevisions(const Revision& revision) const override {
        note("getParentRevisions", {}, revision.id);
        return Revisions(3);
    }
    void exportRevision(const Path& file, const Revision& revision, const Path& to) const override {
        note("exportRevision", {file, to}, revision.id);
    }
    ConflictRevisions getConflictRevisions(const Path& file) const override {
        note("getConflictRevisions", {file});
        return {std::make_unique<Revision>(), nullptr, nullptr};
    }

private:
    void note(const char* name, const Paths& paths, const UString& text = {}) const {
        std::string call = name;
        for (const auto& path : paths)
            call += " " + path.lexicallyRelative(m_copy->root).toUtf8();
        if (!text.empty())
            call += " " + toUtf8(text);
        {
            const std::lock_guard lock(m_copy->mutex);
            m_copy->calls.push_back(std::move(call));
        }
        m_copy->inCall(name, paths);
    }

    std::map<Path, FileState> statesOf(const Paths& paths, bool untracked) const {
        const std::lock_guard lock(m_copy->mutex);
        std::map<Path, FileState> answer;
        for (const auto& path : paths)
            for (auto at = m_copy->states.lower_bound(path);
                 at != m_copy->states.end() && at->first.string().starts_with(path.string());
                 ++at) {
                const auto state = at->second.getState();
                const bool tracked =
                    state != LocalStatus::NotUnderSourceControl && state != LocalStatus::Ignored;
                if ((at->first == path || at->first.isBelow(path)) && (tracked || untracked))
                    answer.insert(*at);
            }
        return answer;
    }

    const std::shared_ptr<MemoryWorkingCopy> m_copy;
};

} // namespace

void MemoryWorkingCopy::set(const Path& path, LocalStatus status) {
    const std::lock_guard lock(mutex);
    states.insert_or_assign(path, FileState(status));
}

void MemoryWorkingCopy::erase(const Path& path) {
    const std::lock_guard lock(mutex);
    states.erase(path);
}

std::vector<std::string> MemoryWorkingCopy::takeCalls() {
    const std::lock_guard lock(mutex);
    return std::exchange(calls, {});
}

std::unique_ptr<CMAdapter> makeMemoryAdapter(std::shared_ptr<MemoryWorkingCopy> workingCopy) {
    return std::make_unique<MemoryAdapter>(std::move(workingCopy));
}

} // namespace quendo::test
