#include "quendo/platform/standard/InotifyFolderWatcher.h"
#include "tests/support/Testing.h"

namespace quendo::platform {
namespace {

TEST(FolderLines, StandBetweenWhatHappenedBeforeAndAfter) {
    const test::TemporaryFolder folder;
    std::promise<void> go;
    InotifyFolderWatcherOptions options;
    options.queueBound = 1U << 20U;
    // The reader sleeps; who draws a line does its work.
    options.beforeRead = [gate = go.get_future().share()] { gate.wait(); };
    InotifyFolderWatcher watcher(options);
    std::vector<std::string> heard; // on the watcher's thread; ordered by the line that is awaited
    const auto line = [&](const std::string& text) {
        watcher.fence([&heard, text] { heard.push_back(text); });
    };
    const auto awaitLine = [&] {
        std::promise<void> reached;
        watcher.fence([&] { reached.set_value(); });
        test::within(reached.get_future());
        return std::exchange(heard, {});
    };
    const auto append = [&](const std::string& name) {
        std::ofstream(folder.path() / name, std::ios::app) << 'x';
    };
    line("nothing is watched");
    EXPECT_THAT(awaitLine(), ElementsAre("nothing is watched"));

    test::writeFile(folder.path() / "same", "");
    auto watch = watcher.watch(
        folder.quendoPath(), FolderWatcher::Scope::Entries,
        [&](const FolderEvent& event) { heard.push_back(event.path.fileName().toUtf8()); });
    for (int i = 0; i < 100; ++i) {
        // The same change on both sides of a line is told on both.
        append("same");
        line("1");
        append("same");
        line("2");
        line("3");
        append("same");
        EXPECT_THAT(awaitLine(), ElementsAre("same", "1", "same", "2", "3", "same"));
    }
    go.set_value();
    line("behind");
    watch.reset();
    EXPECT_THAT(awaitLine(), ElementsAre("behind"));
}

TEST(FolderLines, AreReachedWhenEventsWereLost) {
    const test::TemporaryFolder folder;
    InotifyFolderWatcherOptions options;
    options.queueBound = 0;
    InotifyFolderWatcher watcher(options);
    std::vector<FolderEvent::Kind> told;
    const auto watch = watcher.watch(folder.quendoPath(), FolderWatcher::Scope::Entries,
                                     [&](const FolderEvent& event) { told.push_back(event.kind); });
    for (int i = 0; i < 100; ++i) {
        test::writeFile(folder.path() / "file", "");
        std::promise<std::size_t> reached;
        watcher.fence([&] { reached.set_value(std::exchange(told, {}).size()); });
        EXPECT_GE(test::within(reached.get_future()), 1U);
    }
}

} // namespace
} // namespace quendo::platform
