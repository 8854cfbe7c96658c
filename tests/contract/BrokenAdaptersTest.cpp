#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/contract/AdapterContract.h"
#include "tests/contract/GitSubject.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

// Adapters that are right but for one thing, to show that the suite sees it.

namespace quendo::test {
namespace {

using States = std::map<Path, FileState>;
using Paths = std::vector<Path>;
using Interactor = std::shared_ptr<CMApplicationInteractor>;

struct Broken;
/// Does something to the right answer about these paths.
using Spoil = std::function<void(const Broken&, const Paths&, States&)>;

struct Broken : CMAdapterDecorator {
    Broken(std::unique_ptr<CMAdapter> adapter, const Interactor& interactor, Spoil folders,
           Spoil lists)
        : CMAdapterDecorator(std::move(adapter)), m_folders(std::move(folders)),
          m_lists(std::move(lists)),
          m_connection(interactor->getTerminator().connect([this] { m_wasCancelled = true; })) {}

    States getStatus(const Path& path, bool flag) const override {
        m_isScanning = true;
        auto result = CMAdapterDecorator::getStatus(path, flag);
        m_isScanning = false;
        if (m_folders)
            m_folders(*this, {path}, result);
        return result;
    }
    States getStatus(const Paths& files) const override {
        auto result = CMAdapterDecorator::getStatus(files);
        if (m_lists)
            m_lists(*this, files, result);
        return result;
    }
    std::filesystem::path inMetadata(const char* name) const {
        return std::filesystem::path(getMetadataFolder().folder.toNative()) / name;
    }

    const Spoil m_folders, m_lists;
    std::atomic<bool> m_wasCancelled{false};
    mutable std::atomic<bool> m_isScanning{false};
    const boost::signals2::scoped_connection m_connection;
};

struct ForgetsTheUserWhileScanning : Broken {
    using Broken::Broken;
    UserInfo getUserInfo() const override {
        return m_isScanning ? UserInfo{} : Broken::getUserInfo();
    }
};

struct LeavesHalfAnExport : Broken {
    using Broken::Broken;
    void exportRevision(const Path& file, const Revision& revision,
                        const Path& target) const override {
        try {
            Broken::exportRevision(file, revision, target);
        } catch (const std::exception&) {
            std::ofstream(target.toNative(), std::ios::app) << "half";
            throw;
        }
    }
};

template <class Adapter>
struct BrokenFactory : git::GitAdapterFactory {
    explicit BrokenFactory(Spoil folders = {}, Spoil lists = {})
        : m_folders(std::move(folders)), m_lists(std::move(lists)) {}
    std::unique_ptr<CMAdapter> createAdapter(const Path& folder, Interactor interactor) override {
        return std::make_unique<Adapter>(git::GitAdapterFactory::createAdapter(folder, interactor),
                                         interactor, m_folders, m_lists);
    }
    const Spoil m_folders, m_lists;
};

struct AnswersForDamagedOnes : git::GitAdapterFactory {
    std::unique_ptr<CMAdapter> createAdapter(const Path& folder, Interactor interactor) override {
        try {
            return git::GitAdapterFactory::createAdapter(folder, interactor);
        } catch (const exception::DamagedRepositoryError&) {
            return createAdapter(folder.parentPath(), interactor);
        }
    }
};

TEST(BrokenAdapters, AreFoundOut) {
    GitSandbox sandbox;
    sandbox.enterEnvironment();
    const auto expectViolation = [](const std::string& rule, auto factory) {
        EXPECT_THAT(checkAdapterContract(gitSubject(factory)),
                    testing::Contains(testing::StartsWith(rule + ": ")));
    };
    const auto spoilFolders = [&](const char* rule, Spoil spoil) {
        expectViolation(rule, [&] { return std::make_shared<BrokenFactory<Broken>>(spoil); });
    };
    const auto spoilLists = [&](const char* rule, Spoil spoil) {
        expectViolation(rule,
                        [&] { return std::make_shared<BrokenFactory<Broken>>(Spoil(), spoil); });
    };
    spoilLists("partial", [](auto&, auto&, States& states) {
        for (auto& [path, state] : states)
            state = FileState(state.getState(), state.isFolder());
    });
    spoilLists("outside", [](auto&, const Paths& asked, States& states) {
        for (const auto& path : asked)
            states.try_emplace(path, LocalStatus::NotUnderSourceControl);
    });
    spoilFolders("flag", [](const Broken& self, const Paths& asked, States& states) {
        states = self.CMAdapterDecorator::getStatus(asked[0], true);
    });
    spoilFolders("tracked", [](auto&, auto&, States& states) {
        std::erase_if(states, [](const auto& entry) {
            return entry.second == FileState(LocalStatus::Unmodified);
        });
    });
    spoilFolders("harmless", [](const Broken& self, auto&, auto&) {
        writeFile(self.inMetadata("cache"), "states");
    });
    spoilFolders("locks", [](const Broken& self, auto&, auto&) {
        writeFile(self.inMetadata("index.lock"), "");
        std::filesystem::remove(self.inMetadata("index.lock"));
    });
    spoilFolders("cancellation", [](const Broken& self, auto&, auto&) {
        if (self.m_wasCancelled)
            throw exception::OperationCancelledError("cancelled");
    });
    expectViolation("threads",
                    [] { return std::make_shared<BrokenFactory<ForgetsTheUserWhileScanning>>(); });
    expectViolation("exports",
                    [] { return std::make_shared<BrokenFactory<LeavesHalfAnExport>>(); });
    expectViolation("unusable", [] { return std::make_shared<AnswersForDamagedOnes>(); });
}

} // namespace
} // namespace quendo::test
