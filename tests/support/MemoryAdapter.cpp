#include "tests/support/MemoryAdapter.h"

#include "quendo/exception/AdapterErrors.h"

namespace quendo::test {
namespace {

using Paths = std::vector<Path>;
using Revisions = std::vector<std::unique_ptr<Revision>>;

[[noreturn]] void notAvailable() {
    throw exception::NotAvailableError("the adapter of tests does not do that");
}

class MemoryAdapter : public CMAdapter {
public:
    explicit MemoryAdapter(std::shared_ptr<MemoryWorkingCopy> workingCopy)
        : m_copy(std::move(workingCopy)) {}

    std::map<Path, FileState> getStatus(const Paths& files) const override {
        const std::lock_guard lock(m_copy->mutex);
        std::map<Path, FileState> answer;
        for (const auto& file : files)
            addBelow(file, true, answer);
        return answer;
    }
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override {
        const std::lock_guard lock(m_copy->mutex);
        std::map<Path, FileState> answer;
        addBelow(path, includeUntracked, answer);
        return answer;
    }
    Path getRootFolder() const override { return m_copy->root; }
    std::vector<UString> getForbiddenFileNames() const override { return {u".fake", u".lock"}; }
    UString getRepositorySpecifier(const Path&) const override { return u"memory"; }
    UString getInitialCheckinMessage() const override { return {}; }
    UserInfo getUserInfo() const override { return {}; }
    MetadataFolder getMetadataFolder() const override {
        return {m_copy->root / u".fake", [](const Path&) { return true; }};
    }
    std::vector<UString> getMetadataFiles() const override { return {}; }
    bool isFeatureSupported(SupportedFeature) const override { return false; }
    std::any getSubsystem(const std::type_info&) override { return {}; }
    void setCredentialProvider(std::weak_ptr<CredentialProvider>) override {}

    void checkin(const Path&, const UString&) const override { notAvailable(); }
    void checkin(const Paths&, const UString&) const override { notAvailable(); }
    void addFiles(const Paths&) const override { notAvailable(); }
    void removeFiles(const Paths&) const override { notAvailable(); }
    void moveFile(const Path&, const Path&) const override { notAvailable(); }
    void uncheckout(const Paths&) const override { notAvailable(); }
    void discardChanges() const override { notAvailable(); }
    void checkout(const Paths&) const override { notAvailable(); }
    void resolveConflict(const Path&) const override { notAvailable(); }
    Revisions listRevisions(const Path&,
                            std::optional<std::reference_wrapper<const Revision>>) const override {
        notAvailable();
    }
    std::unique_ptr<Revision> findRevision(const Path&, const UString&) const override {
        notAvailable();
    }
    std::unique_ptr<Revision> getCurrentRevision(const Path&) const override { notAvailable(); }
    Revisions getParentRevisions(const Revision&) const override { notAvailable(); }
    void exportRevision(const Path&, const Revision&, const Path&) const override {
        notAvailable();
    }
    ConflictRevisions getConflictRevisions(const Path&) const override { notAvailable(); }

private:
    void addBelow(const Path& path, bool untracked, std::map<Path, FileState>& answer) const {
        for (auto at = m_copy->states.lower_bound(path);
             at != m_copy->states.end() && at->first.string().starts_with(path.string()); ++at) {
            const auto state = at->second.getState();
            const bool tracked =
                state != LocalStatus::NotUnderSourceControl && state != LocalStatus::Ignored;
            if ((at->first == path || at->first.isBelow(path)) && (tracked || untracked))
                answer.emplace_hint(answer.end(), *at);
        }
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

std::unique_ptr<CMAdapter> makeMemoryAdapter(std::shared_ptr<MemoryWorkingCopy> workingCopy) {
    return std::make_unique<MemoryAdapter>(std::move(workingCopy));
}

} // namespace quendo::test
