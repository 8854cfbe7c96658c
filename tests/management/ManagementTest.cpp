#include "quendo/management/CMActionManager.h"
#include "quendo/management/ListUntrackedFiles.h"
#include "quendo/pool/PooledManagedFolder.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/Testing.h"

namespace quendo::management {
namespace {

class Management : public testing::Test {
protected:
    Management() {
        for (const auto& [name, status] : states)
            copy->set(at(name), status);
        // Owns what it uses: a managed folder's last query may end after the test.
        copy->inCall = [copy = copy.get(), results = results, refuses = refusesFolders](
                           const std::string& name, const std::vector<Path>& paths) {
            if (name == "folder+" && *refuses)
                throw std::runtime_error("no answer");
            for (const auto& path : paths)
                if (const auto result = results.find(name); result != results.end())
                    copy->set(path, result->second);
        };
    }

    Path at(const std::string& name) const { return root.child(name); }
    std::vector<Path> all() const {
        std::vector<Path> files;
        for (const auto& [name, status] : states)
            files.push_back(at(name));
        return files;
    }
    /// What was done since the last time, without the queries.
    std::vector<std::string> done() {
        auto calls = copy->takeCalls();
        std::erase_if(calls, [](const auto& call) {
            return call.starts_with("files ") || call.starts_with("folder");
        });
        return calls;
    }

    const test::TemporaryFolder folder;
    const Path root = folder.quendoPath();
    const std::shared_ptr<test::MemoryWorkingCopy> copy =
        std::make_shared<test::MemoryWorkingCopy>(root);
    const std::map<std::string, LocalStatus> states{
        {"0", LocalStatus::NotUnderSourceControl},
        {"1", LocalStatus::Unmodified},
        {"2", LocalStatus::Ignored},
        {"3", LocalStatus::Modified},
        {"4", LocalStatus::Missing},
        {"5", LocalStatus::Added},
        {"6", LocalStatus::Deleted},
        {"6-there", LocalStatus::Deleted},
        {"7", LocalStatus::Conflicted},
        {"8", LocalStatus::External},
        {"9", LocalStatus::Unknown},
        {"new", LocalStatus::NotUnderSourceControl},
        {"new/0", LocalStatus::NotUnderSourceControl},
    };
    const std::map<std::string, LocalStatus> results{
        {"addFiles", LocalStatus::Added},
        {"uncheckout", LocalStatus::NotUnderSourceControl},
        {"removeFiles", LocalStatus::Deleted},
    };
    const std::shared_ptr<std::atomic<bool>> refusesFolders =
        std::make_shared<std::atomic<bool>>(false);
    const std::unique_ptr<CMAdapter> adapter = test::makeMemoryAdapter(copy);
    CMActionManager manager{*adapter};
};

TEST_F(Management, AddsWhatEachStateCallsFor) {
    test::writeFile(folder.path() / "6-there", "");
    auto files = all();
    std::erase(files, at("new")); // its file brings it
    files.push_back(at("0"));
    manager.add(files, root);
    // The one that was un-scheduled is untracked now, and added by the second pass.
    EXPECT_THAT(done(), ElementsAre("uncheckout 6", "addFiles 6-there", "addFiles 0 6 new new/0"));
    manager.add({at("1"), at("elsewhere")}, root);
    EXPECT_THAT(done(), IsEmpty());
    copy->set(at("1"), LocalStatus::Deleted);
    manager.add({at("1")}, root);
    EXPECT_THAT(done(), ElementsAre("uncheckout 1", "addFiles", "addFiles 1"));
}

TEST_F(Management, RemovesWhatEachStateCallsFor) {
    manager.remove(all());
    EXPECT_THAT(done(), ElementsAre("uncheckout 5", "removeFiles 1 3 4 7"));
    manager.remove({at("2"), at("8")});
    EXPECT_THAT(done(), IsEmpty());
}

TEST_F(Management, ConditionalActionsTakeOnlyWhatWasAskedFor) {
    std::vector<Path> chosen;
    const auto any = [](LocalStatus) { return true; };
    const auto choose = [&](const std::vector<Path>& paths) { chosen = paths; };
    manager.performConditionalAction({at("new"), at("3"), at("new"), at("no")}, any, choose);
    EXPECT_THAT(chosen, ElementsAre(at("3"), at("new"))); // not new/0, which was reported too
    EXPECT_THROW(manager.performConditionalAction({at("3")}, {}, choose), std::bad_function_call);
    EXPECT_THROW(manager.performConditionalAction({at("3")}, any, {}), std::bad_function_call);
    manager.performConditionalAction({at("no")}, {}, {});
    EXPECT_THROW(manager.performConditionalAction(
                     {at("3")}, any, [](const auto&) { throw std::runtime_error("no"); }),
                 std::runtime_error);
}

TEST_F(Management, ListsUntrackedFilesOfTheCacheOrTheAdapter) {
    copy->states.insert_or_assign(at("new"), FileState(LocalStatus::NotUnderSourceControl, true));
    PooledManagedFolder managed(test::makeMemoryAdapter(copy), u"Fake", "fake",
                                std::make_shared<CMApplicationInteractor>());
    EXPECT_THAT(listUntrackedFiles(root, managed), ElementsAre(at("0"), at("new/0")));
    EXPECT_THAT(listUntrackedFiles(at("new"), managed), ElementsAre(at("new/0")));
    EXPECT_THAT(managed.getCache().getCachedFiles(), IsEmpty());
    managed.getCache().setFolderStatusFlag(true);
    EXPECT_THAT(listUntrackedFiles(at("new"), managed), ElementsAre(at("new/0")));
    EXPECT_THAT(listUntrackedFiles(root, managed), UnorderedElementsAre(at("0"), at("new/0")));
    EXPECT_THAT(listUntrackedFiles(at("3"), managed), IsEmpty());
    *refusesFolders = true;
    EXPECT_THROW(listUntrackedFiles(root, managed), std::runtime_error);
}

} // namespace
} // namespace quendo::management
