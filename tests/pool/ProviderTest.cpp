#include "quendo/adapter/ApplicationInteractor.h"
#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/EventBroadcastingCMAdapter.h"
#include "quendo/change_detection/DisableChangeDetection.h"
#include "quendo/exception/VFSChangeEventsError.h"
#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/HostArray.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/StandardSettingsService.h"
#include "quendo/platform/standard/StandardUuidGenerator.h"
#include "quendo/pool/ClientRegisteredManagedFolder.h"
#include "quendo/pool/FaultyFolderRecord.h"
#include "quendo/pool/FindInterface.h"
#include "quendo/pool/GetClients.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/FakeFactory.h"
#include "tests/support/FakeFolderWatcher.h"
#include "tests/support/SteppedDetection.h"

#include <latch>

namespace quendo {
namespace {

using shared_quendo::core::VFSChangeEventsError;

/// Asked for once for each folder that is made, and for each fault.
struct HookedUuids : platform::StandardUuidGenerator {
    std::string generate() override {
        hook();
        return StandardUuidGenerator::generate();
    }
    std::function<void()> hook = [] {};
};

/// Runs the tasks of root watches at once, on another thread.
struct PromptRootWatches : platform::ExecutorService {
    struct Prompt : Executor {
        void post(Task task) override { test::within(test::onThread(std::move(task))); }
        bool isRunningInThisThread() const noexcept override { return false; }
        std::string name() const override { return "CMRootWatch"; }
    };
    std::shared_ptr<Executor> getSourceControlExecutor() override {
        return own->getSourceControlExecutor();
    }
    std::shared_ptr<Executor> createStrandExecutor(const std::string& name) override {
        return name == "CMRootWatch" ? std::make_shared<Prompt>() : own->createStrandExecutor(name);
    }
    const std::shared_ptr<ExecutorService> own = platform::completed({})->executors;
};

/// Calls the test when a folder is made of it, and when it goes.
struct HookedAdapter : CMAdapterDecorator {
    using CMAdapterDecorator::CMAdapterDecorator;
    ~HookedAdapter() override { whenDestroyed(); }
    MetadataFolder getMetadataFolder() const override { // asked for while a folder is made
        inMaking();
        return CMAdapterDecorator::getMetadataFolder();
    }
    Path getRootFolder() const override {
        return hasNoRoot ? throw std::domain_error("no root") : CMAdapterDecorator::getRootFolder();
    }
    std::function<void()> whenDestroyed = [] {}, inMaking = [] {};
    bool hasNoRoot = false;
};

/// Working copies "a" and "a/inner" of a made-up system, and a link to "a".
class ProviderTest : public testing::Test {
protected:
    ProviderTest() {
        fs::create_directories(folder.path() / "a/inner/.fake");
        fs::create_directories(folder.path() / "a/.fake");
        fs::create_directories(folder.path() / "a/x");
        test::writeFile(folder.path() / "a/x/file", "");
        fs::create_directory_symlink("a", folder.path() / "link");
        fs::create_symlink("../link/x/file", folder.path() / "a/inner/to-file");
        provider->connectFolderMade(
            [this](const auto& made) { note("made " + name(made->getRootFolder())); });
        provider->connectClientRegistered(
            [this](const std::string& client) { note("client " + client); });
        provider->connectFaultRecorded([this](std::shared_ptr<FaultyFolder> fault) {
            note("fault " + name(fault->getLocation().first));
            const std::lock_guard lock(mutex);
            kept.push_back(std::move(fault));
        });
        provider->connectFolderReleased(
            [this](const Path& root) { note("released " + name(root)); });
        provider->connectFolderDeleted([this](const Path& root) { note("deleted " + name(root)); });
    }

    void note(std::string text) {
        const std::lock_guard lock(mutex);
        told.push_back(std::move(text));
    }
    Path at(const std::string& name) const { return folder.quendoPath().child(name); }
    std::string name(const Path& path) const {
        return path.lexicallyRelative(folder.quendoPath()).toUtf8();
    }
    /// The adapters that are made from now on are hooked.
    void hookAdapters(const std::function<void(HookedAdapter&)>& hook) {
        factory->createHook = [this, hook](const Path& root) {
            auto made =
                std::make_unique<HookedAdapter>(test::makeMemoryAdapter(factory->copyAt(root)));
            hook(*made);
            return made;
        };
    }
    std::vector<std::string> listed() const {
        std::vector<std::string> names;
        for (const auto& each : provider->getManagedFolders())
            names.push_back(name(each->getRootFolder()));
        return names;
    }

    const test::TemporaryFolder folder;
    const std::shared_ptr<test::FakeFactory> factory = std::make_shared<test::FakeFactory>();
    const std::shared_ptr<test::FakeFolderWatcher> watcher =
        std::make_shared<test::FakeFolderWatcher>();
    const std::shared_ptr<platform::StandardSettingsService> settings =
        std::make_shared<platform::StandardSettingsService>();
    const std::shared_ptr<HookedUuids> uuids = std::make_shared<HookedUuids>();
    std::unique_ptr<ManagedFolderProvider> provider = [this] {
        platform::Services services;
        services.uuids = uuids;
        services.executors = std::make_shared<PromptRootWatches>();
        services.factorySources = std::make_shared<test::FakeSources>(factory);
        services.folderWatcher = watcher;
        services.settings = settings;
        return createNewManagedFolderProviderInstance(services);
    }();
    std::mutex mutex;
    std::vector<std::string> told; ///< guarded by it
    std::vector<std::shared_ptr<FaultyFolder>> kept;
};

TEST_F(ProviderTest, GivesOneFolderForEverySpellingOfOneRoot) {
    const test::LogCapture log;
    auto first = provider->provideFor(at("a"), "ide");
    const auto uuid = first->getUUID();
    for (const auto* path : {"a/x", "a/x/file", "link", "link/x/new/file", "a/inner/..", "a/.fake"})
        EXPECT_EQ(provider->provideFor(at(path))->getUUID(), uuid) << path;
    for (const auto* path : {"a/inner", "link/inner/x", "a/inner/to-file"})
        EXPECT_EQ(provider->provideFor(at(path), "x")->getRootFolder(), at("a/inner")) << path;
    EXPECT_EQ(first->getRootFolder(), at("a"));
    EXPECT_EQ(first->getSystemName(), u"Fake");
    EXPECT_EQ(first->getSystemID(), "fake");
    EXPECT_EQ(provider->provideFor(folder.quendoPath()), nullptr);
    EXPECT_EQ(log.count("Find viable location for folder: "), 11U);
    EXPECT_EQ(log.count("Found cached entry with read lock."), 6U);
    EXPECT_EQ(log.count("Create new entry."), 4U); // the inner one was let go each time
    EXPECT_EQ(log.count("Exception caught: "), 0U);

    EXPECT_THAT(listed(), ElementsAre("a"));
    auto second = provider->provideFor(at("link")), third = registerClient(second, "zebra");
    EXPECT_THAT(first->getClients(),
                ElementsAre(Pair("UNKNOWN", 1U), Pair("ide", 1U), Pair("zebra", 1U)));
    second.reset(); // the third still holds it
    third.reset();
    EXPECT_THAT(first->getClients(), ElementsAre(Pair("ide", 1U)));
    told.clear();
    first.reset();
    EXPECT_THAT(listed(), IsEmpty());
    first = provider->provideFor(at("a"), "ide");
    EXPECT_NE(first->getUUID(), uuid);
    EXPECT_THAT(told, ElementsAre("released a", "made a", "client ide"));
    EXPECT_EQ(test::within(provideLater(*provider, at("a"), "ui"))->getUUID(), first->getUUID());

    fs::create_directory_symlink(at("a/x").toNative(), at("sub").toNative());
    fs::create_directory_symlink(at("a").toNative(), at("a/x/self").toNative());
    fs::create_symlink("nowhere", at("a/dangling").toNative());
    fs::create_symlink("a/nowhere", at("dangling").toNative());
    const std::tuple<const char*, const char*, const char*> spellings[] = {
        // asked for, as a request, as an entry of "a"
        {"link", "a", "a"},
        {"link/../link/x/file", "a/x/file", "a/x/file"},
        {"sub", "a/x", "a/x"},
        {"sub/new", "a/x/new", "a/x/new"},
        {"link/x/self", "a", "a/x/self"},
        {"link/x/self/x/.", "a/x", "a/x"},
        {"link/dangling", "a/dangling", "a/dangling"},
        {"dangling", "dangling", "dangling"},
        {"a/inner/to-file", "a/inner/to-file", "a/inner/to-file"}};
    for (const auto& [path, request, entry] : spellings) {
        EXPECT_EQ(managedPath(at(path)), at(request)) << path;
        EXPECT_EQ(managedPath(*first, at(path)), at(entry)) << path;
    }

    settings->setBoolean("kestro.sourcecontrol", "EnableSourceControl", false);
    EXPECT_EQ(provider->provideFor(at("a")), nullptr);
}

TEST_F(ProviderTest, CallsBackUnlessCancelled) {
    test::SteppedDetection detection;
    std::vector<std::string> calls;
    const auto ask = [&](const Path& path) {
        return provideLater(*provider, path, "ui", [&](auto provided, auto error) {
            calls.push_back(provided ? name(provided->getRootFolder()) : error ? "failed" : "none");
        });
    };
    const auto none = ask(folder.quendoPath()), failed = ask(Path(u"relative"));
    auto made = ask(at("link")), replaced = ask(at("a"));
    replaced = ask(at("a/inner"));
    ask(at("a")).cancel();
    detection.runStrands();
    EXPECT_THAT(calls, ElementsAre("none", "failed", "a", "a/inner"));
    made.cancel();

    factory->createHook = [&](const Path& root) {
        made.cancel();
        return test::makeMemoryAdapter(factory->copyAt(root));
    };
    made = ask(at("a"));
    told.clear();
    detection.runStrands();
    EXPECT_THAT(told, ElementsAre("made a", "client ui", "released a"));
    const auto last = ask(at("a"));
    provider.reset();
    detection.runStrands();
    EXPECT_EQ(calls.size(), 5U) << "the provider need not wait for it";
}

TEST_F(ProviderTest, RefusesWhatNobodyCanBeGivenAFolderFor) {
    EXPECT_THROW(provider->provideFor(Path(u"a")), exception::InvalidArgumentError);
    EXPECT_THROW(provider->provideFor(Path()), exception::InvalidArgumentError);
    for (const auto* client : {"", "two\nlines", "\x7f"})
        EXPECT_THROW(provider->provideFor(at("a"), client), exception::InvalidArgumentError)
            << client;
    EXPECT_THAT(told, IsEmpty());
    EXPECT_EQ(factory->made, 0);
    EXPECT_THROW(registerClient(nullptr, "ide"), exception::InvalidArgumentError);
}

TEST_F(ProviderTest, RecordsFaultsAndTriesAgain) {
    const auto expectFault = [&](const std::string& root, const std::string& text,
                                 std::uint64_t number) {
        told.clear();
        const auto fault = provider->provideFaultyFor(at("a/x"), "ide");
        ASSERT_NE(fault, nullptr);
        EXPECT_THAT(told, ElementsAre("fault " + root));
        EXPECT_EQ(fault->getLocation(), std::pair(at(root), number));
        EXPECT_EQ(fault->getFolder(), at("a/x"));
        EXPECT_EQ(fault->getClientId(), "ide");
        EXPECT_THAT(provider->getFaultyFolders(), testing::Contains(fault));
        EXPECT_THAT([&] { provider->provideFor(at("a/x")); },
                    testing::ThrowsMessage<std::exception>(HasSubstr(text)));
        EXPECT_NE(kept.front()->getUUID(), kept.back()->getUUID());
        EXPECT_THAT(listed(), IsEmpty());
    };
    const auto good = factory->createHook;
    factory->createHook = [](const Path&) -> std::unique_ptr<CMAdapter> {
        throw exception::SourceControlException("damaged");
    };
    expectFault("a", "damaged", 1);
    factory->createHook = [](const Path&) { return nullptr; };
    expectFault("a", "\"fake\" recognised", 3);
    factory->createHook = [&](const Path&) {
        return test::makeMemoryAdapter(factory->copyAt(at("elsewhere")));
    };
    expectFault("elsewhere", "lies outside the files of its repository, which are in", 1);
    factory->createHook = good;
    watcher->refused = at("a/.fake"); // the detector's
    expectFault("a", "a/x", 5);
    watcher->refused = at("a"); // the updater's
    EXPECT_EQ(kept.size(), 8U);
    kept.clear();
    EXPECT_THAT(provider->getFaultyFolders(), IsEmpty());
    expectFault("a", "a/x", 1);
    try {
        provider->provideFor(at("a/x"));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const exception::SourceControlException& error) {
        const auto* events = dynamic_cast<const VFSChangeEventsError*>(&error);
        ASSERT_NE(events, nullptr);
        EXPECT_THROW(std::rethrow_if_nested(error), platform::ChangeEventsSubscriptionException);
    }
    watcher->refused = Path();
    EXPECT_NE(provider->provideFor(at("a/x")), nullptr);
    EXPECT_EQ(provider->provideFaultyFor(at("a/x")), nullptr);
    EXPECT_TRUE(watcher->awaitEnd());

    factory->canManageHook = [](const Path&) -> bool { throw 7; };
    EXPECT_EQ(provider->provideFor(at("a")), nullptr);
}

TEST_F(ProviderTest, ListsFaultsThatAreRecordedAtTheSameTime) {
    factory->createHook = [](const Path&) { return nullptr; };
    std::shared_ptr<FaultyFolder> inner;
    uuids->hook = [&, isOuter = true]() mutable {
        if (std::exchange(isOuter, false))
            inner = provider->provideFaultyFor(at("a/inner"));
    };
    const auto outer = provider->provideFaultyFor(at("a"));
    EXPECT_THAT(provider->getFaultyFolders(), testing::UnorderedElementsAre(inner, outer));
}

TEST_F(ProviderTest, MakesFoldersBesideEachOther) {
    for (const bool fails : {false, true}) {
        std::promise<void> making, goOn, secondAsked;
        const auto opened = goOn.get_future().share();
        std::atomic<int> asked = 0, makings = 0;
        hookAdapters([&](HookedAdapter& made) {
            if (made.getRootFolder() != at("a"))
                return;
            made.inMaking = [&] {
                if (++makings == 1) {
                    making.set_value();
                    opened.wait();
                }
                if (fails)
                    throw exception::SourceControlException("broken");
            };
            if (++asked == 2)
                secondAsked.set_value();
        });
        const auto ask = [&] { return provider->provideFor(at("a")); };
        auto first = test::onThread(ask);
        test::within(making.get_future());
        auto second = test::onThread(ask);
        test::within(secondAsked.get_future());
        const auto inner =
            test::within(test::onThread([&] { return provider->provideFor(at("a/inner")); }));
        EXPECT_THAT(listed(), ElementsAre("a/inner"));
        goOn.set_value();
        if (fails) {
            EXPECT_THROW(test::within(std::move(first)), exception::SourceControlException);
            EXPECT_THROW(test::within(std::move(second)), exception::SourceControlException);
        } else {
            const auto one = test::within(std::move(first)), two = test::within(std::move(second));
            EXPECT_EQ(one->getUUID(), two->getUUID());
            EXPECT_EQ(makings, 1);
        }
    }
}

TEST_F(ProviderTest, RefusesRequestsThatWouldWaitForThemselves) {
    int depth = 0;
    hookAdapters([&](HookedAdapter& made) {
        made.inMaking = [&] {
            if (++depth == 1) {
                EXPECT_THAT([&] { provider->provideFor(at("a/x")); },
                            testing::ThrowsMessage<exception::SourceControlException>(
                                HasSubstr("is being opened by this very request")));
            }
        };
    });
    EXPECT_NE(provider->provideFor(at("a")), nullptr);
    EXPECT_EQ(depth, 1);

    // Two that wait for each other.
    std::latch both(2);
    std::atomic<int> refused = 0;
    hookAdapters([&](HookedAdapter& made) {
        made.inMaking = [&, other = made.getRootFolder() == at("a") ? at("a/inner") : at("a")] {
            both.arrive_and_wait();
            try {
                provider->provideFor(other);
            } catch (const exception::SourceControlException&) {
                ++refused;
            }
        };
    });
    auto one = test::onThread([&] { return provider->provideFor(at("a")); }),
         two = test::onThread([&] { return provider->provideFor(at("a/inner")); });
    EXPECT_TRUE(test::within(std::move(one)) && test::within(std::move(two)));
    EXPECT_EQ(refused, 1);
}

TEST_F(ProviderTest, LetsGoOfWhatFailedWithoutALock) {
    const test::LogCapture log;
    int destroyed = 0;
    HookedAdapter* last = nullptr;
    hookAdapters([&](HookedAdapter& made) {
        last = &made;
        made.whenDestroyed = [&] {
            test::within(test::onThread([&] { return listed(); }));
            ++destroyed;
        };
    });
    watcher->refused = at("a");
    EXPECT_THROW(provider->provideFor(at("a")), VFSChangeEventsError);
    EXPECT_EQ(destroyed, 1);
    watcher->refused = Path();
    auto made = provider->provideFor(at("a"));
    last->hasNoRoot = true;
    made.reset();
    EXPECT_EQ(destroyed, 2) << "its destructor logs the root";
}

TEST_F(ProviderTest, OrdersWhatBecomesOfARoot) {
    std::promise<void> dying, goOn;
    hookAdapters([&](HookedAdapter& made) {
        made.whenDestroyed = [&] {
            dying.set_value();
            goOn.get_future().wait();
        };
    });
    auto dropped =
        test::onThread([first = provider->provideFor(at("a"))]() mutable { first.reset(); });
    test::within(dying.get_future());
    hookAdapters([](HookedAdapter&) {});
    told.clear();
    auto second = provider->provideFor(at("a"), "ui");
    EXPECT_THAT(told, ElementsAre("released a", "made a", "client ui"));
    goOn.set_value();
    test::within(std::move(dropped));
    EXPECT_EQ(told.size(), 3U);

    // Also for a listener behind one that brings the next notice.
    std::string behind;
    std::shared_ptr<ManagedFolder> third;
    const auto bringing = provider->connectFolderReleased(
        [&](const Path&) { third = provider->provideFor(at("a")); });
    provider->connectFolderReleased([&](const Path&) { behind += "released "; });
    provider->connectFolderMade([&](const auto&) { behind += "made "; });
    second.reset();
    bringing.disconnect();
    EXPECT_EQ(behind, "released made ");
}

TEST_F(ProviderTest, TellsThatTheRootWentWhileItsFolderWasMade) {
    uuids->hook = [&] { fs::rename(folder.path() / "a", folder.path() / "away"); };
    const auto made = provider->provideFor(at("a"), "ide");
    EXPECT_THAT(told, ElementsAre("made a", "deleted a", "client ide"));
}

TEST_F(ProviderTest, CountsNoListenerInAndMayGoInOne) {
    std::shared_ptr<ManagedFolder> seen;
    provider->connectFolderMade([&](auto made) {
        EXPECT_THAT(made->getClients(), ElementsAre(Pair("ide", 1U)));
        seen = std::move(made);
        provider.reset();
    });
    provider->provideFor(at("a"), "ide");
    EXPECT_THAT(seen->getClients(), IsEmpty());
}

TEST_F(ProviderTest, KeepsItsServicesToItself) {
    int called = 0;
    const auto check = [&](const char* who) {
        return [&, who](const auto&...) {
            EXPECT_NE(platform::services()->settings, settings) << who;
            ++called;
        };
    };
    factory->canManageHook = [&, manages = factory->canManageHook](const Path& path) {
        check("canManage")();
        return manages(path);
    };
    hookAdapters([&](HookedAdapter& made) {
        check("createAdapter")();
        made.inMaking = [&] { EXPECT_EQ(platform::services()->settings, settings); };
    });
    provider->connectFolderMade(check("made"));
    provider->connectClientRegistered(check("client"));
    provider->connectFolderReleased(check("released"));
    provider->connectFaultRecorded(check("fault"));
    EXPECT_NE(provider->provideFor(at("a")), nullptr);
    EXPECT_EQ(called, 5);
    watcher->refused = at("a");
    EXPECT_NE(provider->provideFaultyFor(at("a")), nullptr);
    EXPECT_EQ(called, 8);
}

TEST_F(ProviderTest, TellsEveryListenerOfAFolderThoughOneThrows) {
    const auto made = provider->provideFor(at("a"));
    auto& broadcaster = *findInterface<EventBroadcastingCMAdapter>(*made);
    auto& interactor = made->getCMInteractor();
    int heard = 0;
    const std::function<void()> slots[] = {[] { throw std::domain_error("listener"); },
                                           [&] { ++heard; }};
    for (const auto& slot : slots) {
        const auto paths = [&slot](const auto&) { slot(); };
        broadcaster.addFolderStatusListener(paths);
        broadcaster.addStatusListener(paths);
        broadcaster.addUpdateListener(slot);
        made->getTerminator().connect(slot);
        interactor.getStatusDispatcher().connect(slot);
    }
    EXPECT_THROW(broadcaster.dispatchFolderStatusChanged({}), std::domain_error);
    EXPECT_THROW(broadcaster.dispatchFileStatusChanged({}), std::domain_error);
    EXPECT_THROW(broadcaster.dispatchUpdate(), std::domain_error);
    EXPECT_THROW(interactor.getTerminationTrigger().trigger(), std::domain_error);
    EXPECT_THROW(made->getStatusTrigger().trigger(), std::domain_error);
    EXPECT_EQ(heard, 5);
}

TEST(FaultyFolder, TellsItsRecordOnceThatItGoes) {
    std::vector<std::string> released;
    auto fault = std::make_unique<PooledFaultyFolder>(std::pair(Path(u"/a"), 1U), Path(u"/a"),
                                                      "ide", nullptr, [&](const std::string& uuid) {
                                                          released.push_back(uuid);
                                                          throw 1;
                                                      });
    const auto uuid = fault->getUUID();
    fault.reset();
    EXPECT_THAT(released, ElementsAre(uuid));
}

// The provider of the process.
TEST(SingletonProvider, ListsItsClientsAndSuspendsDetection) {
    const test::TemporaryFolder folder;
    fs::create_directories(folder.path() / "copy/.fake");
    const auto copy = folder.quendoPath().child("copy");
    const auto factory = std::make_shared<test::FakeFactory>();
    const scope_guard remove(getInjectedCMAdapterFactoriesInstance().inject(factory));
    const auto list = [](const std::vector<platform::HostArray>& inputs) {
        platform::HostArray* output = nullptr;
        const platform::HostArray* input = inputs.empty() ? nullptr : &inputs.front();
        getClients(0, &output, static_cast<int>(inputs.size()), &input);
        const std::unique_ptr<platform::HostArray> owned(output);
        EXPECT_EQ(owned->columns(), 1U);
        return owned->strings();
    };
    EXPECT_THAT(list({}), IsEmpty());
    auto& provider = getSingletonManagedFolderProvider();
    const auto one = provider.provideFor(copy), two = provider.provideFor(copy),
               third = provider.provideFor(copy, "proj\xC3\xA4");
    const auto text = u"root: " + UString(copy.string()) + u"\nsystem: Fake\nsystem id: fake\n" +
                      u"UUID: " + toUString(one->getUUID()) +
                      u"\nclient: UNKNOWN 2\nclient: proj\u00E4 1\n";
    EXPECT_THAT(list({}), ElementsAre(text));
    EXPECT_THAT(list({platform::HostArray(u"proj\u00E4")}), ElementsAre(text));
    EXPECT_THAT(list({platform::HostArray(u"proj")}), IsEmpty());
    EXPECT_THROW(list({platform::HostArray(1.0)}), platform::HostCallError);
    EXPECT_THROW(getClients(2, nullptr, 0, nullptr), platform::TooManyOutputsError);
    EXPECT_THROW(getClients(0, nullptr, 2, nullptr), platform::TooManyInputsError);
    EXPECT_THROW(getClients(1, nullptr, -1, nullptr), platform::TooFewInputsError);
    EXPECT_THROW(platform::HostArray(2, 2, std::vector<UString>(3)),
                 exception::InvalidArgumentError);

    EXPECT_EQ(&getSingletonManagedFolderProvider(), &provider);
    fs::create_directories(folder.path() / "other/.fake");
    {
        const auto guard = disableChangeDetection(folder.quendoPath().child("other/x"));
        EXPECT_EQ(provider.getManagedFolders().size(), 2U) << "the guard keeps the folder";
    }
    EXPECT_EQ(provider.getManagedFolders().size(), 1U);
    const auto nothing = disableChangeDetection(folder.quendoPath());
}

} // namespace
} // namespace quendo
