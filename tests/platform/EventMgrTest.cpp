#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/standard/StandardEventMgr.h"

#include "tests/support/FakeFolderWatcher.h"

namespace quendo::platform {
namespace {

using Kind = FolderEvent::Kind;

TEST(AbsoluteIRI, BringsEveryFileNameBack) {
    std::string everyByte = "/folder/";
    for (int byte = 1; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    for (const auto& native :
         {everyByte, std::string("/"), std::string("/a b%20/\xF0\x9F\x98\x80")})
        EXPECT_EQ(fromAbsoluteIRI(getLocation(File(Path::fromNative(native)))).toNative(), native);
    EXPECT_EQ(getLocation(Folder(Path(u"/ä~ b"))).toString(), "file:///%C3%A4~%20b");
    EXPECT_EQ(fromAbsoluteIRI(AbsoluteIRI("file:///a%20b")).toUtf8(), "/a b");
    for (const auto* wrong : {"", "/a", "file://a", "http:///a", "file:///a b", "file:///%",
                              "file:///%2", "file:///%zz", "file:///%00"})
        EXPECT_THROW(AbsoluteIRI{wrong}, exception::InvalidArgumentError) << wrong;
    EXPECT_THROW(getLocation(File(Path(u"a"))), exception::InvalidArgumentError);
}

class EventMgrTest : public testing::Test {
protected:
    std::vector<EventType> typesOf(const Path& of, std::vector<StorageEventKind> kinds) {
        return createEventTypes(kinds, getLocation(Folder(of)).toString());
    }
    std::unique_ptr<EventSubscription> subscribe(const std::vector<std::string>& tags = {}) {
        manager.publishEventsFor(Folder(folder), all, WithRecursiveChangeEvents::NonRecursive);
        return manager.subscribe(
            [this](const Event& event) {
                const auto& data = event.getEventData();
                told.push_back(std::to_string(static_cast<int>(data.getKind())) + " " +
                               getLocation(data.getFileOrFolder()).toString());
            },
            typesOf(folder, {StorageEventKind::Created, StorageEventKind::Deleted}), tags);
    }

    const Path folder{u"/f"};
    const std::vector<StorageEventKind> all{StorageEventKind::Created, StorageEventKind::Changed,
                                            StorageEventKind::Deleted};
    const std::shared_ptr<test::FakeFolderWatcher> watcher =
        std::make_shared<test::FakeFolderWatcher>();
    StandardEventMgr manager{watcher};
    std::vector<std::string> told;
};

TEST_F(EventMgrTest, TellsTheKindsAskedForAndWhatIsUnknown) {
    auto subscription = subscribe();
    watcher->tell(Kind::Appeared, Path(u"/f/new"));
    watcher->tell(Kind::Changed, Path(u"/f/new"));
    watcher->tell(Kind::Vanished, Path(u"/f/new"));
    watcher->tell(Kind::ContentsUnknown, folder);
    EXPECT_THAT(told, ElementsAre("2 file:///f/new", "4 file:///f/new", "5 file:///f"));
    manager.unsubscribe(Folder(folder), std::move(subscription));
    EXPECT_THAT(watcher->watched(), IsEmpty());
}

TEST_F(EventMgrTest, CountsSubscriptionsByTag) {
    auto first = subscribe({"a", "b"});
    const auto second = subscribe({"b"});
    EXPECT_THAT(manager.getSubscriptionCountByTag(), ElementsAre(Pair("a", 1), Pair("b", 2)));
    first.reset();
    EXPECT_THAT(manager.getSubscriptionCountByTag(), ElementsAre(Pair("b", 1)));
    EXPECT_EQ(watcher->watched().size(), 1U);
}

TEST_F(EventMgrTest, RefusesWhatItCannotDo) {
    const auto nothing = [](const Event&) {};
    const auto types = typesOf(folder, all);
    EXPECT_THROW((void)manager.subscribe(nothing, types, {}), ChangeEventsSubscriptionException);
    EXPECT_THROW(
        manager.publishEventsFor(File(folder), all, WithRecursiveChangeEvents::NonRecursive),
        ChangeEventsSubscriptionException);
    EXPECT_THROW(
        manager.publishEventsFor(Folder(folder), all, WithRecursiveChangeEvents::Recursive),
        ChangeEventsSubscriptionException);
    EXPECT_THAT([&] { (void)manager.subscribe(nothing, types, {""}); },
                testing::ThrowsMessage<std::logic_error>("cannot add user tags."));
    EXPECT_THROW((void)manager.subscribe(nothing, {}, {}), exception::InvalidArgumentError);
    EXPECT_EQ(EventType::baseType(2), "eventmgr::BaseEvent");
    EXPECT_THAT([] { EventType::baseType(3); }, testing::ThrowsMessage<std::out_of_range>(
                                                    "eventmgr::BaseEvent has no base types."));
    // A refusal of the watcher reaches the caller and leaves nothing behind.
    watcher->refused = folder;
    EXPECT_THROW((void)subscribe({"a"}), ChangeEventsSubscriptionException);
    EXPECT_THAT(manager.getSubscriptionCountByTag(), IsEmpty());
}

} // namespace
} // namespace quendo::platform
