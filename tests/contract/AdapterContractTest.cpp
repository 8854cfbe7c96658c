#include "tests/contract/AdapterContract.h"

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/GitAdapterFactory.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

namespace quendo::test {
namespace {

using States = std::map<Path, FileState>;
using Interactor = std::shared_ptr<CMApplicationInteractor>;

/// Git's adapter, right but for one thing: what it breaks is this rule.
class Broken : public CMAdapterDecorator {
public:
    Broken(std::unique_ptr<CMAdapter> adapter, const Interactor& interactor, std::string rule)
        : CMAdapterDecorator(std::move(adapter)), m_rule(std::move(rule)),
          m_connection(interactor->getTerminator().connect([this] { m_wasCancelled = true; })) {}

    States getStatus(const Path& path, bool flag) const override {
        m_isScanning = true;
        auto states = CMAdapterDecorator::getStatus(path, flag || m_rule == "flag");
        m_isScanning = false;
        const fs::path metadata = getMetadataFolder().folder.toNative();
        if (m_rule == "tracked")
            std::erase_if(states, [](const auto& entry) {
                return entry.second == FileState(LocalStatus::Unmodified);
            });
        if (m_rule == "harmless")
            writeFile(metadata / "cache", "states");
        if (m_rule == "locks") {
            writeFile(metadata / "index.lock", "");
            fs::remove(metadata / "index.lock");
        }
        if (m_rule == "cancellation" && m_wasCancelled)
            throw exception::OperationCancelledError("cancelled");
        return states;
    }
    States getStatus(const std::vector<Path>& files) const override {
        auto states = CMAdapterDecorator::getStatus(files);
        if (m_rule == "partial")
            for (auto& [path, state] : states)
                state = FileState(state.getState(), state.isFolder());
        if (m_rule == "outside")
            for (const auto& path : files)
                states.try_emplace(path, LocalStatus::NotUnderSourceControl);
        return states;
    }
    UserInfo getUserInfo() const override {
        const bool isForgotten = m_rule == "threads" && m_isScanning;
        return isForgotten ? UserInfo{} : CMAdapterDecorator::getUserInfo();
    }
    void exportRevision(const Path& file, const Revision& revision,
                        const Path& target) const override {
        try {
            CMAdapterDecorator::exportRevision(file, revision, target);
        } catch (const std::exception&) {
            if (m_rule == "exports")
                std::ofstream(target.toNative(), std::ios::app) << "half";
            throw;
        }
    }

private:
    const std::string m_rule;
    std::atomic<bool> m_wasCancelled{false};
    mutable std::atomic<bool> m_isScanning{false};
    const boost::signals2::scoped_connection m_connection;
};

struct BrokenFactory : git::GitAdapterFactory {
    explicit BrokenFactory(std::string broken) : rule(std::move(broken)) {}
    std::unique_ptr<CMAdapter> createAdapter(const Path& folder, Interactor interactor) override {
        try {
            return std::make_unique<Broken>(
                git::GitAdapterFactory::createAdapter(folder, interactor), interactor, rule);
        } catch (const exception::DamagedRepositoryError&) {
            return rule == "unusable" ? createAdapter(folder.parentPath(), interactor) : throw;
        }
    }
    const std::string rule;
};

std::vector<std::string> violations(std::function<std::shared_ptr<CMAdapterFactory>()> factory) {
    GitSandbox sandbox;
    sandbox.enterEnvironment();
    return checkAdapterContract({std::move(factory), R"sh(
create() { git init -q -b main; }
commit() { git add -A; git commit -q --allow-empty -m "$1"; }
add() { git --literal-pathspecs add -- "$1"; }
remove() { git --literal-pathspecs rm -q --cached -- "$1"; }
ignore() { echo "/$1" >> .git/info/exclude; }
say() { echo "$2" > "$1"; git commit -q --allow-empty -m "$2" -- "$1"; }
conflict() {
    say "$1" base; git checkout -q -b side; say "$1" theirs
    git checkout -q main; say "$1" ours; ! git merge -q side
}
damage() { rm .git/HEAD; }
foreign() { git config core.repositoryFormatVersion 99; }
)sh"});
}

TEST(AdapterContract, HoldsForGit) {
    EXPECT_THAT(violations([] { return std::make_shared<git::GitAdapterFactory>(); }), IsEmpty());
}

TEST(AdapterContract, FindsOutWhoBreaksIt) {
    for (const std::string rule : {"partial", "outside", "flag", "tracked", "harmless", "locks",
                                   "cancellation", "threads", "exports", "unusable"})
        EXPECT_THAT(violations([&] { return std::make_shared<BrokenFactory>(rule); }),
                    testing::Contains(testing::StartsWith(rule + ": ")));
}

} // namespace
} // namespace quendo::test
