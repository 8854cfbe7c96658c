#include "host/RevisionPrinter.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "quendo/platform/UString.h"
#include "tests/support/Testing.h"

#include <nlohmann/json.hpp>

#include <ctime>

namespace quendo::host {
namespace {

using std::string;

/// Every kind of record.
StatusReport awkwardReport(StatusSelection selection = {}) {
    using enum LocalStatus;
    const Path root = Path::fromNative("/repo");
    StatusReport report{"Git", root, root, {}, selection};
    const std::tuple<const char*, LocalStatus, std::vector<std::u16string_view>, bool> rows[] = {
        {"\xef\xbf\xbd", Modified, {u".M"}, false},
        {"\xf0\x9f\x98\x80", Modified, {u"M."}, false},
        {"bad\xff\n", Added, {u"A."}, false},
        {"a.txt", Unmodified, {}, false},
        {"removed", Deleted, {u"D.", u"??"}, false},
        {"kept", Deleted, {u"D.", u"!!"}, false},
        {"sub", External, {u".M"}, true},
        {"clean", External, {}, true},
        {"nested", NotUnderSourceControl, {u"??"}, true},
        {"holder", NotUnderSourceControl, {}, true},
        {"nested.txt", NotUnderSourceControl, {u"??"}, false},
        {"out", Ignored, {u"!!"}, true},
    };
    for (const auto& [name, status, columns, isFolder] : rows) {
        std::vector<FileProperty> properties;
        for (const auto each : columns)
            properties.emplace_back(property::columns, each);
        report.states.emplace(root.child(name), FileState(status, isFolder, properties));
    }
    report.states.emplace(root, FileState(Unmodified, true));
    report.states.emplace(
        root.child("why"),
        FileState(Unknown, false, {FileProperty(u"why", u"a\tb"), FileProperty(u"why", u"c")}));
    return report;
}

TEST(StatusPrinter, ProgramsSeeTheRootAndWhatLiesAtTheTop) {
    auto report = awkwardReport({.all = true});
    const auto lines = jsonStatus(report);
    EXPECT_EQ(nlohmann::json::parse(lines.substr(0, lines.find('\n'))).dump(),
              R"({"folder":true,"path":".","properties":{},"state":"Unmodified","system":"Git"})");
    report.states = {{Path::fromNative("/etc"), report.states.at(report.root.child("sub"))}};
    report.root = Path::fromNative("/");
    EXPECT_EQ(porcelainStatus(report, '\n'), ".M\tetc\n");
}

TEST(StatusPrinter, SelectionDecidesWhatIsShown) {
    const string some = "2 modified, 1 added, 2 deleted, 1 unknown, ";
    const std::pair<StatusSelection, string> rows[] = {
        {{}, some + "1 external, 2 untracked"},
        {{.ignored = true}, some + "1 external, 2 untracked, 1 ignored"},
        {{.all = true}, some + "2 external, 3 untracked, 2 unmodified"},
        {{.untrackedOnly = true}, "2 untracked"},
        {{.untrackedOnly = true, .ignored = true}, "2 untracked, 1 ignored"},
    };
    for (const auto& [selection, summary] : rows)
        EXPECT_THAT(humanStatus(awkwardReport(selection), Path::fromNative("/x"), false),
                    testing::EndsWith("\n" + summary + " in /repo (Git)\n"));
}

TEST(StatusPrinter, PeopleSeeEscapedPathsFromWhereTheyAre) {
    auto report = awkwardReport();
    const auto at = [&](const char* folder, bool colours = false) {
        return humanStatus(report, Path::fromNative(folder), colours);
    };
    EXPECT_THAT(at("/repo/sub"), testing::HasSubstr("added       $'../bad\\xff\\n'\n"));
    EXPECT_NE(at("/repo").find("untracked   nested/\n"), string::npos);
    EXPECT_NE(at("/").find("external    repo/sub/\n"), string::npos);
    EXPECT_NE(at("/else/where").find("unknown     /repo/why  (a\\tb; c)\n"), string::npos);
    EXPECT_EQ(at("/repo").find('\x1b'), string::npos);
    EXPECT_NE(at("/repo", true).find("\x1b[32madded\x1b[0m       $'bad"), string::npos);
    report.states.clear();
    EXPECT_EQ(at("/repo"), "nothing differs in /repo (Git)\n");
}

TEST(VisibleText, LeavesNothingForTheTerminalToActOn) {
    const std::array<string, 3> rows[] = {
        {"plain name", "plain name", "plain name"},
        {"\u00e9\u20ac\U0001f600", "\u00e9\u20ac\U0001f600", "\u00e9\u20ac\U0001f600"},
        {"it's\\", "it's\\", "it's\\"},
        {"it's\\\n", R"(it's\\n)", R"($'it\'s\\\n')"},
        {"\x1b[2J\x7f", R"(\x1b[2J\x7f)", R"($'\x1b[2J\x7f')"},
        {"\u009b[1m", R"(\u009b[1m)", R"($'\u009b[1m')"},
        {"\u202ecod.exe", R"(\u202ecod.exe)", R"($'\u202ecod.exe')"},
        {"\U000e0001", R"(\U000e0001)", R"($'\U000e0001')"},
        {"\xff\xc3", R"(\xff\xc3)", R"($'\xff\xc3')"},
        {" x", " x", "$' x'"},
    };
    for (const auto& [bytes, text, path] : rows) {
        EXPECT_EQ(visibleText(bytes), text);
        EXPECT_EQ(visiblePath(bytes), path);
    }
}

TEST(RevisionPrinter, ShowsWhatIsKnown) {
    ::setenv("TZ", "CET-1", 1);
    ::tzset();
    const Path root = Path::fromNative("/repo");
    std::vector<std::unique_ptr<Revision>> revisions;
    for (const char* name : {"new", "old\xff"}) {
        auto revision = std::make_unique<Revision>();
        revision->id = UString(40, u'a');
        revision->author = u"Ada\u001b";
        revision->authorEmail = u"ada@example.org";
        revision->message = u"first\nsecond";
        revision->date = std::chrono::sys_days(std::chrono::year(1969) / 12 / 31) +
                         std::chrono::minutes(23 * 60 + 59);
        revision->path = root.child(name);
        revisions.push_back(std::move(revision));
    }
    EXPECT_EQ(humanRevision(*revisions[0], root.child("new"), root) +
                  humanRevision(*revisions[1], root.child("new"), root),
              "aaaaaaaaaa  1970-01-01 00:59  Ada\\x1b  first\n"
              "aaaaaaaaaa  1970-01-01 00:59  Ada\\x1b  first  (as $'old\\xff')\n");
    EXPECT_THAT(jsonRevision(*revisions[1], root, "Git"),
                testing::EndsWith("{\"system\":\"Git\",\"id\":\"" + string(40, 'a') +
                                  R"(","author":"Ada\u001b","email":"ada@example.org",)"
                                  R"("date":"1969-12-31T23:59:00Z","message":"first\nsecond",)"
                                  "\"path\":\"old\xef\xbf\xbd\",\"path_hex\":\"6f6c64ff\"}\n"));

    revisions[0]->id = u"r1234";
    EXPECT_EQ(shortID(*revisions[0]), "r1234");
}

} // namespace
} // namespace quendo::host
