#include "quendo/platform/Services.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/ExecutorService.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/ScopeGuard.h"
#include "quendo/platform/standard/StandardFeatureFlagService.h"
#include "quendo/platform/standard/StandardFileUtilities.h"
#include "quendo/platform/standard/StandardMessageCatalogue.h"
#include "quendo/platform/standard/StandardUuidGenerator.h"
#include "quendo/pool/ManagedFolderProvider.h"
#include "tests/support/Testing.h"

#include <regex>

namespace quendo::platform {
namespace {

Services withMarker(bool flag) {
    auto flags = std::make_shared<StandardFeatureFlagService>();
    flags->set("marker", flag);
    Services services;
    services.featureFlags = flags;
    return services;
}

bool marker() {
    return platform::services()->featureFlags->isOn("marker");
}

/// Ends the process with what a further install() says.
void installAgain() {
    try {
        install({});
    } catch (const ServicesInUseError& error) {
        std::fputs((error.what() + std::string(marker() ? " on" : " off")).c_str(), stderr);
    }
    std::_Exit(0);
}

// Each in a process of its own: what is installed stays.
TEST(ServicesDeathTest, AreInstalledOnceAndBeforeTheirFirstUse) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const testing::ExitedWithCode success(0);
    EXPECT_EXIT((install(withMarker(true)), installAgain()), success,
                "installed already at .*ServicesTest.cpp:[0-9]+.* on");
    EXPECT_EXIT((marker(), installAgain()), success,
                "in use already, first at .*ServicesTest.cpp:[0-9]+.* off");
}

TEST(Services, ScopesNestAndMissingMembersAreStandard) {
    const ScopedServices outer(withMarker(false));
    const auto held = services();
    {
        const ScopedServices inner(withMarker(true));
        EXPECT_TRUE(marker() && !held->featureFlags->isOn("marker"));
    }
    EXPECT_EQ(services(), held);
    {
        const ThreadServices mine(completed(withMarker(true)));
        const ThreadServices nothing(nullptr);
        EXPECT_TRUE(marker());
        EXPECT_FALSE(test::within(test::onThread(marker)));
    }
    EXPECT_EQ(services(), held);
    EXPECT_TRUE(held->settings && held->executors && held->messages && held->installation &&
                held->uuids && held->files && held->folderWatcher);
    EXPECT_EQ(held->factorySources, nullptr);
    EXPECT_EQ(getSourceControlExecutor(), getSourceControlExecutor());
    EXPECT_NE(createStrandExecutor("a"), createStrandExecutor("a"));
    EXPECT_EQ(createStrandExecutor("a")->name(), "a");
}

TEST(Services, RefuseHalfOfTheEventService) {
    Services events, fileSystem;
    events.events = services()->events;
    fileSystem.fileSystem = services()->fileSystem;
    for (const auto& half : {events, fileSystem}) {
        const auto refused = testing::ThrowsMessage<exception::InvalidArgumentError>(
            HasSubstr("give both or neither"));
        EXPECT_THAT([&] { install(half); }, refused);
        EXPECT_THAT([&] { createNewManagedFolderProviderInstance(half); }, refused);
    }
    events.fileSystem = fileSystem.fileSystem;
    EXPECT_EQ(completed(events)->events, events.events);
}

TEST(Services, StandardUuidsAreRandomOnes) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    const auto uuid = StandardUuidGenerator().generate();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    EXPECT_NE(uuid, StandardUuidGenerator().generate());
}

TEST(Services, MessagesFillPlaceholdersOnce) {
    const StandardMessageCatalogue catalogue;
    MessageID id{"shared_quendo:core", "VFSChangeEventsError", {u"/a/{0}{1}"}};
    const auto text = catalogue.format(id);
    EXPECT_NE(text.find(u"\"/a/{0}{1}\" "), UString::npos) << toUtf8(text);
    id.arguments.clear();
    EXPECT_NE(catalogue.format(id).find(u"{0}"), UString::npos);
    EXPECT_EQ(catalogue.format({"c", "k", {u"x", u"y"}}), u"c:k: x, y");
}

TEST(Services, FileQuestions) {
    namespace fs = std::filesystem;
    const test::TemporaryFolder folder;
    const auto root = folder.quendoPath();
    test::writeFile(folder.path() / "d/file", "x");
    fs::create_directory_symlink("d", folder.path() / "link");
    fs::create_symlink("nowhere", folder.path() / "dangling");
    const StandardFileUtilities files;
    EXPECT_TRUE(files.exists(root / u"dangling"));
    EXPECT_FALSE(files.exists(root / u"nowhere"));
    EXPECT_TRUE(files.isDirectory(root / u"link"));
    EXPECT_FALSE(files.isDirectory(root / u"d/file"));
    EXPECT_TRUE(files.equivalent(root / u"d/file", root / u"link/file"));
    EXPECT_FALSE(files.equivalent(root / u"nowhere", root / u"nowhere"));
    EXPECT_FALSE(files.isAncestor(root, root));
    EXPECT_TRUE(files.isAncestor(root, root / u"nowhere"));

    const std::pair<std::u16string, std::u16string> rows[] = {
        {u"link/file", u"d/file"},  {u"link/../d/./file", u"d/file"}, {u"link/new/x", u"d/new/x"},
        {u"d/file/x", u"d/file/x"}, {u"dangling", u"dangling"},       {u"d", u"d"}};
    for (const auto& [path, expected] : rows)
        EXPECT_EQ(files.canonical(root / path), root / expected) << Path(path);
    const auto list = files.includeParentDirectories(
        {root / u"a/b/c", root / u"a/d", root, Path(u"/0/x"), root / u"a/d"}, root);
    EXPECT_THAT(list, testing::ElementsAre(Path(u"/0/x"), root, root / u"a", root / u"a/b",
                                           root / u"a/b/c", root / u"a/d"));
}

TEST(ScopeGuard, RunsOnceWhereverItEndsAndSwallows) {
    std::string ran;
    const auto adding = [&](char mark) { return [&ran, mark] { ran += mark; }; };
    {
        scope_guard guard(adding('a')), target(adding('b')), dismissed(adding('c'));
        scope_guard moved(std::move(guard));
        target = std::move(moved);
        EXPECT_EQ(ran, "b") << "what the target held before";
        target.release();
        target.release();
        EXPECT_EQ(ran, "ba");
        dismissed.dismiss();
        const scope_guard last(adding('d'));
        const scope_guard throwing([] { throw std::runtime_error("swallowed"); });
    }
    EXPECT_EQ(ran, "bad");
}

TEST(Logging, RecordsCarryTheirPlaceAndOnlyExistWhenTaken) {
    std::string evaluated;
    const auto operand = [&](char mark) { return evaluated += mark; };
    testing::internal::CaptureStderr();
    QUENDO_LOG(Severity::CaughtException) << "nobody listens " << operand('a');
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const test::LogCapture log;
    QUENDO_LOG(Severity::Detail) << " path.string()=" << Path(u"/é") << operand('b');
    const int line = __LINE__ - 1;
    try {
        throw std::runtime_error("the reason");
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
    setLogThreshold(Severity::Notice);
    QUENDO_LOG(Severity::Detail) << operand('c');
    QUENDO_LOG(Severity::Notice) << "notice";
    setLogThreshold(Severity::Detail);

    const auto records = log.records();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(std::tie(records[0].severity, records[0].message, records[0].line),
              std::tuple(2, " path.string()=/éb", line));
    EXPECT_THAT(records[0].function, HasSubstr("TestBody()"));
    EXPECT_THAT(records[0].source, HasSubstr("platform/ServicesTest"));
    EXPECT_THAT(records[1].message,
                testing::AllOf(testing::StartsWith("Exception caught: "), HasSubstr("the reason")));
    EXPECT_EQ(logSourceOf("/x/quendo/pool/PooledManagedFolder.cpp"), "pool/PooledManagedFolder");
}

std::size_t framesAt(int depth) {
    volatile auto frames =
        depth == 0 ? StackTraceRecordingException("deep").frameCount() : framesAt(depth - 1);
    return frames;
}

TEST(StackTraceRecordingException, RecordsBoundedStacks) {
    EXPECT_EQ(framesAt(300), StackTraceRecordingException::maximumFrames);
    static_assert(std::is_nothrow_copy_constructible_v<StackTraceRecordingException>);
    const StackTraceRecordingException error("what happened");
    EXPECT_GT(error.frameCount(), 1U);
    EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(error.stackTrace(), '\n')),
              error.frameCount());
}

} // namespace
} // namespace quendo::platform
