#include "quendo/factory/AllCMAdapterFactoryProvider.h"
#include "quendo/factory/CMAdapterFactories.h"
#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/ScopeGuard.h"
#include "quendo/platform/Services.h"
#include "quendo/platform/standard/StandardFeatureFlagService.h"
#include "quendo/platform/standard/StandardSettingsService.h"
#include "tests/support/FakeFactory.h"

namespace quendo {
namespace {

const std::string javaSvn =
    "com.tallowick.quendo.implementations.svnkitintegration.BuiltInSVNAdapterFactory";

using FactoryList = std::vector<std::shared_ptr<CMAdapterFactory>>;

using test::FakeFactory;
using test::FakeSources;

auto fake(
    std::string id, std::function<bool()> answer = [] { return true; }) {
    auto made = std::make_shared<FakeFactory>(std::move(id));
    made->canManageHook = [answer = std::move(answer)](const Path& folder) {
        EXPECT_EQ(folder, Path(u"/folder"));
        return answer();
    };
    return made;
}

class Factories : public testing::Test {
protected:
    Factories() : m_scoped(bundle()) {}

    platform::Services bundle() {
        platform::Services services;
        services.factorySources = sources;
        services.featureFlags = flags;
        services.settings = settings;
        return services;
    }
    std::string provided() const {
        const auto factory = AllCMAdapterFactoryProvider().provide(Path(u"/folder"));
        return factory != nullptr ? factory->getID() : "none";
    }

    const std::shared_ptr<FakeSources> sources{new FakeSources};
    const std::shared_ptr<platform::StandardFeatureFlagService> flags{
        new platform::StandardFeatureFlagService};
    const std::shared_ptr<platform::StandardSettingsService> settings{
        new platform::StandardSettingsService};
    InjectedCMAdapterFactories& injected = getInjectedCMAdapterFactoriesInstance();

private:
    platform::ScopedServices m_scoped;
};

TEST_F(Factories, ListIsFreshInstalledFirstAndWithoutInjectedOnes) {
    const auto git = fake("a");
    sources->installed = {git, fake("b")};
    sources->java = {"a", "c"};
    scope_guard remove(injected.inject(fake("injected")));
    std::string ids;
    for (const auto& factory : getCMAdapterFactories())
        ids += factory->getID();
    EXPECT_EQ(ids, "abac");
    EXPECT_EQ(getCMAdapterFactory("a"), git) << "the first of equal ones";
    EXPECT_EQ(getCMAdapterFactory(std::string("c"))->getID(), "c");
    EXPECT_EQ(getCMAdapterFactory(CMAdapterType("c"))->getID(), "c");
    EXPECT_EQ(sources->installedAsked, 4);
    remove.release();
    sources->failing = true;
    EXPECT_THROW(getCMAdapterFactory(std::string("a")), std::domain_error);
    EXPECT_THROW(provided(), std::domain_error);
}

TEST_F(Factories, TypesChooseAndAreToldByIdentifier) {
    EXPECT_EQ(getCMAdapterFactory(Git{})->getID(), git::GitAdapterFactory().getID());
    EXPECT_THAT([] { getCMAdapterFactory(SVN{}); },
                testing::ThrowsMessage<std::runtime_error>(
                    "Unable to find adapter factory with id QVSVNAdapter"));
    sources->java = {"QVSVNAdapter", javaSvn};
    EXPECT_EQ(getCMAdapterFactory(SVN{})->getID(), "QVSVNAdapter") << "nothing was remembered";
    flags->set("NativeSVNIntegration", false);
    EXPECT_EQ(getCMAdapterFactory(SVN{})->getID(), javaSvn);
    EXPECT_EQ(getCMAdapterType(git::GitAdapterFactory()), CMAdapterType(Git{}));
    EXPECT_EQ(getCMAdapterType(FakeFactory("QVSVNAdapter")), CMAdapterType(SVN{}));
    EXPECT_EQ(getCMAdapterType(FakeFactory(javaSvn)), CMAdapterType(javaSvn));
}

TEST_F(Factories, ProviderPrefersInjectedThenInstalledThenJava) {
    const test::LogCapture log;
    EXPECT_EQ(provided(), "none");
    EXPECT_TRUE(log.records().empty());
    sources->java = {"java"};
    EXPECT_EQ(provided(), "java");
    const auto refusing = fake("no", [] { return false; });
    sources->installed = {fake("throws", []() -> bool { throw std::logic_error("broken"); }),
                          fake("throws too", []() -> bool { throw 42; }), refusing,
                          fake("installed")};
    EXPECT_EQ(provided(), "installed");
    EXPECT_EQ(refusing->asked, 1);
    EXPECT_EQ(log.count("Exception caught: "), 2U);
    EXPECT_EQ(sources->javaAsked, 2) << "later lists are not fetched";
    const scope_guard remove(injected.inject(fake("injected")));
    EXPECT_EQ(provided(), "injected");
    EXPECT_EQ(sources->installedAsked, 3) << "as often as before";
}

/// Answers this many questions and then nothing; with 3 the last one throws.
struct BrokenSettings : platform::SettingsService, platform::SettingsGroup {
    explicit BrokenSettings(int answers) : m_answers(answers) {}

    std::shared_ptr<platform::SettingsGroup> getRoot() const override { return next(0); }
    std::shared_ptr<platform::SettingsGroup> getGroup(std::string_view) const override {
        return next(1);
    }
    std::optional<bool> getBoolean(std::string_view) const override {
        return m_answers == 3 ? throw std::runtime_error("settings") : std::nullopt;
    }
    std::shared_ptr<BrokenSettings> next(int asked) const {
        return asked < m_answers ? std::make_shared<BrokenSettings>(m_answers) : nullptr;
    }
    const int m_answers;
};

TEST_F(Factories, NothingIsAskedWhenSourceControlIsOffOrUnreadable) {
    const auto factory = fake("good");
    const scope_guard remove(injected.inject(factory));
    settings->setBoolean("kestro.sourcecontrol", "EnableSourceControl", false);
    EXPECT_EQ(provided(), "none");
    const std::string messages[] = {
        "Unable to get settings root.", "Unable to get source control settings group.",
        "Unable to read the setting EnableSourceControl.", "Exception caught: "};
    std::vector<std::shared_ptr<BrokenSettings>> broken;
    for (int answers = 0; answers < 4; ++answers)
        broken.push_back(std::make_shared<BrokenSettings>(answers));
    for (int answers = 0; answers < 4; ++answers) {
        const auto& message = messages[answers];
        const test::LogCapture log;
        auto services = bundle();
        services.settings = broken[answers]; // all at once, so that no two have one address
        const platform::ScopedServices scoped(services);
        EXPECT_EQ(provided() + provided(), "nonenone") << message;
        EXPECT_EQ(log.count(message), 2U) << message;
        EXPECT_EQ(log.count("Source control is off"), 1U) << message;
    }
    EXPECT_EQ(factory->asked + sources->installedAsked + sources->javaAsked, 0);
}

TEST_F(Factories, MayInjectAndRemoveWhileTheyAreAsked) {
    std::function<void()> removeSecond;
    const auto removeFirst = injected.inject(fake("first", [&] {
        // From another thread too: nothing may be locked while a factory is asked.
        removeSecond =
            test::within(test::onThread([&] { return injected.inject(fake("second")); }));
        return false;
    }));
    EXPECT_EQ(provided(), "none") << "the search goes over the list as it was";
    removeFirst();
    EXPECT_EQ(provided(), "second");
    removeSecond();
    EXPECT_TRUE(injected.getFactories().empty());
}

TEST(InjectedCMAdapterFactories, RemoverTakesEveryEntryOfItsFactoryOutAndKeepsTheOrder) {
    InjectedCMAdapterFactories list;
    const FactoryList made{fake("a"), fake("b"), fake("c")};
    std::function<void()> remove;
    for (const int each : {0, 1, 2, 1})
        remove = list.inject(made[each]);
    EXPECT_EQ(list.getFactories(), (FactoryList{made[0], made[1], made[2], made[1]}));
    remove();
    remove();
    EXPECT_EQ(list.getFactories(), (FactoryList{made[0], made[2]}));
    EXPECT_THROW(list.inject(nullptr), exception::InvalidArgumentError);
}

TEST(InjectedCMAdapterFactories, RemoverHoldsNothingAndFactoriesDieUnlocked) {
    auto list = std::make_unique<InjectedCMAdapterFactories>();
    auto factory = fake("dies");
    factory->createHook =
        [whenDestroyed = std::make_shared<scope_guard>([&] {
             test::within(test::onThread([&] { return list->inject(fake("x")); }));
         })](const Path&) { return nullptr; };
    const auto remove = list->inject(std::move(factory));
    EXPECT_EQ(list->getFactories().front()->getID(), "dies");
    remove();
    EXPECT_EQ(list->getFactories().front()->getID(), "x") << "it died, with nothing locked";
    list.reset();
    remove();
}

TEST(InjectedCMAdapterFactories, RemoverKnowsAFactoryThatNobodyOwns) {
    InjectedCMAdapterFactories list;
    FakeFactory factory;
    const auto remove =
        list.inject(std::shared_ptr<CMAdapterFactory>(std::shared_ptr<void>(), &factory));
    EXPECT_EQ(list.getFactories().size(), 1U);
    remove();
    EXPECT_THAT(list.getFactories(), testing::IsEmpty());
}

} // namespace
} // namespace quendo
