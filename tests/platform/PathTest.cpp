#include "quendo/platform/Path.h"
#include "quendo/platform/IsChildFolderQuery.h"
#include "tests/support/Allocations.h"
#include "tests/support/Testing.h"

namespace quendo {
namespace {

using Text = std::u16string;

TEST(Path, EveryFileNameComesBackByteForByte) {
    const std::pair<std::string, Text> rows[] = {
        {"/a b\n\t\"", u"/a b\n\t\""},
        {"é€😀", u"é€😀"},
        {"e\xCC\x81", u"e\u0301"},
        {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", u"\x7F\x80\u07FF\u0800\uFFFF"},
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
        // No UTF-8: Latin-1, overlong, surrogate, beyond U+10FFFF, cut short by an end or a
        // separator.
        {"caf\xE9", u"caf\xDCE9"},
        {"\xC0\xAF", u"\xDCC0\xDCAF"},
        {"\xE0\x9F\xBF", u"\xDCE0\xDC9F\xDCBF"},
        {"\xED\xA0\x80", u"\xDCED\xDCA0\xDC80"},
        {"\xF4\x90\x80\x80", u"\xDCF4\xDC90\xDC80\xDC80"},
        {"a\xE2\x82", u"a\xDCE2\xDC82"},
        {"\xE2\x82/\xAC", u"\xDCE2\xDC82/\xDCAC"}};
    for (const auto& [bytes, text] : rows) {
        EXPECT_EQ(Path::fromNative(bytes).string(), text) << bytes;
        EXPECT_EQ(Path(text).toNative(), bytes);
        EXPECT_EQ(Path(u"/top").child(bytes), Path(u"/top") / Path(text));
    }
    std::mt19937 random(20260517);
    const unsigned char telling[] = {'/',  'a',  0x80, 0xBF, 0xC2, 0xE0, 0xA0,
                                     0xED, 0xEF, 0xF0, 0x90, 0xF4, 0x8F, 0xFF};
    for (int round = 0; round < 20'000; ++round) {
        std::string bytes(random() % 24, '\0');
        for (auto& byte : bytes)
            byte = static_cast<char>(round % 2 ? telling[random() % std::size(telling)]
                                               : 1 + random() % 255);
        const auto path = Path::fromNative(bytes);
        ASSERT_EQ(path.toNative(), bytes);
        ASSERT_EQ(Path(path.string()), path);
        ASSERT_EQ(toUtf8(toUString(path.toUtf8())), path.toUtf8()) << "not valid UTF-8";
    }
}

TEST(Path, TextThatWouldComeBackDifferentIsRefused) {
    // NUL, lone surrogates that stand for no byte, bytes that are a character, a byte that is ASCII
    const Text refused[] = {Text(u"a\0b", 3), u"a\xD83D",      u"\xDC7F",
                            u"\xDD00",        u"\xDCC3\xDCA9", u"\xDC41"};
    for (const auto& text : refused)
        EXPECT_THROW(Path{text}, InvalidPathError) << testing::PrintToString(text);
    EXPECT_THROW(Path::fromNative(std::string_view("a\0b", 3)), InvalidPathError);
    EXPECT_THROW(Path(u"/a").child(std::string_view("\xE9\0", 2)), InvalidPathError);
}

TEST(Path, CopyingAllocatesNothing) {
    const Path original(u"/some/folder/file.txt"), folder(u"/some");
    const auto before = test::allocationCount;
    Path copy(original);
    Path moved(std::move(copy));
    copy = moved;
    copy = *&copy;
    const auto hash = copy.hash();
    const bool same = copy == original && copy.string().data() == original.string().data();
    const auto afterCopies = test::allocationCount;
    const auto child = folder.child("folder/file.txt");
    EXPECT_EQ(test::allocationCount - afterCopies, 1U);
    EXPECT_EQ(afterCopies - before, 0U);
    EXPECT_TRUE(same);
    EXPECT_EQ(hash, child.hash());
}

TEST(Path, PartsJoiningAndLexicalForms) {
    struct Row {
        Text a, b, expected;
    };
    const auto check = [](const char* what, const auto& rows, auto operation) {
        for (const auto& row : rows)
            EXPECT_EQ(operation(Path(row.a), Path(row.b)), Path(row.expected))
                << what << " of " << Path(row.a) << " and " << Path(row.b);
    };
    const Row parent[] = {
        {u"/a/b", u"", u"/a"}, {u"/a", u"", u"/"}, {u"/", u"", u""}, {u"a", u"", u""}};
    check("parent", parent, [](auto a, auto) { return a.parentPath(); });
    const Row name[] = {
        {u"/a/b", u"", u"b"}, {u"/", u"", u""}, {u"a", u"", u"a"}, {u"a/b/", u"", u""}};
    check("name", name, [](auto a, auto) { return Path(a.fileName()); });
    const Row joined[] = {{u"/a", u"b", u"/a/b"}, {u"/", u"b", u"/b"}, {u"/a", u"", u"/a"},
                          {u"/a", u"/b", u"/b"},  {u"", u"b", u"b"},   {u"", u"", u""}};
    check("joined", joined, [](auto a, auto b) { return a / b; });
    check("child", joined, [](auto a, auto b) { return a.child(b.toNative()); });
    const Row normal[] = {{u"", u"", u""},
                          {u"a/..", u"", u"."},
                          {u"/a//b/", u"", u"/a/b"},
                          {u"../a/./b/..", u"", u"../a"},
                          {u"a/../../b", u"", u"../b"},
                          {u"/a/../..", u"", u"/"}};
    check("normal", normal, [](auto a, auto) { return a.lexicallyNormal(); });
    const Row relative[] = {
        {u"/a/b/c", u"/a", u"b/c"},  {u"/a", u"/a/b/c", u"../.."}, {u"/a/x", u"/a/y", u"../x"},
        {u"/a/", u"/a", u"."},       {u"/a", u"/", u"a"},          {u"/", u"/", u"."},
        {u"/a", u"a", u""},          {u"a", u"/a", u""},           {u"a", u"../b", u""},
        {u"../a", u"../b", u"../a"}, {u"/ab", u"/a", u"../ab"},    {u"/a/./b", u"/a/c/..", u"b"}};
    check("relative", relative, [](auto a, auto b) { return a.lexicallyRelative(b); });
    EXPECT_LT(Path(u"/a"), Path(u"/a/b"));
    EXPECT_NE(Path(u"a//b"), Path(u"a/b"));
}

TEST(Path, BelowAndChildFolders) {
    const struct {
        Text path, ancestor;
        bool below;
    } rows[] = {{u"/a/b", u"/a", true}, {u"/a", u"/a", false}, {u"/ab", u"/a", false},
                {u"/a", u"/", true},    {u"/", u"/", false},   {u"/a/b", u"/a/", true},
                {u"/a/", u"/a", false}, {u"a", u"", false},    {u"a/b/c", u"a", true},
                {u"/a", u"/a/b", false}};
    for (const auto& row : rows)
        EXPECT_EQ(Path(row.path).isBelow(Path(row.ancestor)), row.below)
            << Path(row.path) << " below " << Path(row.ancestor);
    const IsChildFolderQuery query({Path(u"/a/b"), Path(u"/c"), Path()});
    for (const auto* inside : {u"/a/b", u"/a/b/x/y", u"/c/z"})
        EXPECT_TRUE(query.isChild(Path(inside))) << Path(inside);
    for (const auto* outside : {u"/a", u"/a/bc", u"/", u"", u"c"})
        EXPECT_FALSE(query.isChild(Path(outside))) << Path(outside);
}

} // namespace
} // namespace quendo
