#include "quendo/cache/TransactionalFileCache.h"
#include "tests/cache/CheckedContents.h"
#include "tests/support/Allocations.h"

namespace quendo {
namespace {

using Store = TransactionalFileCache<FileState>;
using States = test::Contents;

// Names with one and the same hash, as an attacker would make them: each second block of eight
// bytes undoes the first in the standard library's hash (MurmurHash64A).
const Path hostile[] = {
    Path(u"/aaf\u49CD\u37C0\u758C\u41FC"), Path(u"/acc\u5D22\u54E7\u3F8A\u7189"),
    Path(u"/acs\u9C54\u5F3F\u815A\u6F74"), Path(u"/adc\u71D6\u87C1\u73BF\u78D5"),
    Path(u"/aee\u7982\u4CBE\u4932\u5BF1"), Path(u"/aek\u5A89\u3E22\u486E\u5AE1")};

States contentsOf(const Store::Version& version, const Path& folder = {}) {
    States states;
    const auto add = [&](const Path& path, const FileState& state) {
        EXPECT_TRUE(states.emplace(path, state).second) << path << " is listed twice";
    };
    if (folder.empty())
        version.forEach(add);
    else
        version.forEachIn(folder, add);
    return states;
}

// Random transactions against a plain map. Versions taken in between must stay as they were, and
// names of one hash must live with all others.
TEST(Store, DoesWhatAPlainMapDoes) {
    for (const auto& path : hostile)
        ASSERT_EQ(path.hash(), hostile[0].hash());
    for (unsigned seed = 1; seed <= 5; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
        const auto anyPath = [&]() -> Path {
            if (below(8) == 0)
                return hostile[below(std::size(hostile))];
            Path path(u"/r");
            for (unsigned depth = below(4); depth > 0; --depth)
                path =
                    path.child(below(3) == 0 ? "a-" + std::to_string(below(9))
                                             : std::string(1, static_cast<char>('a' + below(3))));
            return path;
        };
        const auto anyState = [&] { return FileState(static_cast<LocalStatus>(below(10))); };
        Store store;
        States model;
        std::vector<std::pair<Store::Version, States>> kept;
        for (int step = 0; step < 60; ++step) {
            const States before = model;
            Store::Transaction transaction(store, step % 2 == 0);
            if (below(3) == 0) {
                const auto folder = anyPath();
                States answer;
                for (unsigned i = below(60); i > 0; --i)
                    answer.insert_or_assign(anyPath(), anyState());
                std::erase_if(model, [&](const auto& entry) {
                    return entry.first == folder || entry.first.isBelow(folder);
                });
                for (const auto& [path, state] : answer)
                    model.insert_or_assign(path, state);
                transaction.replace(folder, answer);
            }
            for (unsigned i = below(40); i > 0; --i) {
                const auto path = anyPath();
                if (below(3) == 0) {
                    transaction.erase(path);
                    model.erase(path);
                } else {
                    const auto state = anyState();
                    transaction.put(path, state);
                    model.insert_or_assign(path, state);
                }
            }
            if (below(10) == 0) {
                model = before; // given up
                continue;
            }
            EXPECT_EQ(contentsOf(store.version()), before) << "visible before commit()";
            const auto foldersOf = [](const Store::Version& of) {
                const auto folders = of.folders();
                return std::set(folders.begin(), folders.end());
            };
            const auto previous = store.version();
            transaction.commit();
            transaction.recordNow();
            auto replay = before;
            for (const auto& [path, old, now] : transaction.takeChanges().changes) {
                EXPECT_EQ(old,
                          replay.contains(path) ? std::optional(replay.at(path)) : std::nullopt);
                replay.erase(path);
                if (now)
                    replay.emplace(path, *now);
            }
            EXPECT_EQ(replay, model);
            const auto version = store.version();
            ASSERT_EQ(contentsOf(version), model);
            ASSERT_EQ(version.size(), model.size());
            test::expectFoldersOf(
                model, [&](const Path& path) { return version.summaryOf(path); },
                version.folders());
            EXPECT_EQ(version.folderSetNumber() != previous.folderSetNumber(),
                      foldersOf(version) != foldersOf(previous));
            const auto folder = anyPath();
            auto inside = model;
            std::erase_if(inside, [&](const auto& entry) {
                return entry.first != folder && !entry.first.isBelow(folder);
            });
            EXPECT_EQ(contentsOf(version, folder), inside);
            kept.emplace_back(version, model);
        }
        for (const auto& [version, states] : kept)
            EXPECT_EQ(contentsOf(version), states) << "a version has changed";
    }
}

// The work of a transaction is that of its changes, whatever the size of the store.
TEST(Store, TouchesWhatChangesAndReadsWithoutAllocating) {
    std::vector<std::size_t> touched;
    for (const int folders : {50, 5000}) {
        Store store;
        States all, one;
        for (int folder = 0; folder < folders; ++folder)
            for (int file = 0; file < 20; ++file)
                all.emplace(Path(u"/r").child(std::to_string(folder) + "/" + std::to_string(file)),
                            LocalStatus::Unmodified);
        {
            Store::Transaction transaction(store);
            transaction.replace(Path(u"/r"), all);
            transaction.commit();
        }
        const Path folder(u"/r/7");
        for (int file = 0; file < 18; ++file) // two are gone
            one.emplace(folder.child(std::to_string(file)), LocalStatus::Modified);
        Store::Transaction transaction(store);
        transaction.replace(folder, one);
        transaction.commit();
        touched.push_back(transaction.touched());
        EXPECT_EQ(store.version().summaryOf(Path(u"/r")).below[LocalStatus::Modified], 18U);

        const auto allocations = test::allocationCount;
        EXPECT_TRUE(store.find(all.begin()->first));
        EXPECT_FALSE(store.find(folder));
        EXPECT_EQ(test::allocationCount, allocations);
    }
    EXPECT_EQ(touched[0], touched[1]);
    EXPECT_LT(touched[0], 100U);
}

// Readers see all of a transaction or nothing of it, in single look-ups taken through a version and
// in listings, while transactions go on.
TEST(Store, ShowsWholeTransactionsOnly) {
    Store store;
    States states[2];
    for (int i = 0; i < 200; ++i) {
        const auto path = Path(u"/r").child(std::to_string(i % 10) + "/" + std::to_string(i));
        states[0].emplace(path, LocalStatus::Unmodified);
        if (i % 3 != 0)
            states[1].emplace(path, LocalStatus::Modified);
    }
    std::atomic<bool> done = false;
    test::onThreads(4, [&](int thread) {
        for (int i = 0; thread == 0 && i < 300; ++i) {
            Store::Transaction transaction(store);
            transaction.replace(Path(u"/r"), states[i % 2]);
            transaction.commit();
        }
        done = done || thread == 0;
        while (!done) {
            const auto version = store.version();
            const auto seen = contentsOf(version, Path(u"/r"));
            EXPECT_TRUE(seen.empty() || seen == states[0] || seen == states[1]) << seen.size();
            EXPECT_EQ(version.summaryOf(Path(u"/")).below.total(), seen.size());
        }
    });
}

} // namespace
} // namespace quendo
