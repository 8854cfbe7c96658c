#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/CredentialProvider.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/support/MemoryAdapter.h"
#include "tests/support/Testing.h"

#include <any>
#include <boost/signals2/signal.hpp>

namespace quendo {
namespace {

template <class... Words>
std::string line(const Words&... words) {
    std::ostringstream text;
    ((text << words << ' '), ...);
    return text.str();
}

TEST(CMAdapterDecorator, ForwardsEachCallOnceAndUnchangedThroughTwoLayers) {
    const Path a(u"/a"), b(u"/b");
    const std::vector<Path> files{a, b};
    Revision revision;
    revision.id = u"id";
    const auto copy = std::make_shared<test::MemoryWorkingCopy>(Path(u"/"));
    copy->set(a, LocalStatus::NotUnderSourceControl);
    copy->inCall = [](const std::string& name, const auto&) {
        if (name == "checkout")
            throw std::length_error("back end");
    };
    struct Provider : CredentialProvider {
        std::optional<Credentials> getCredentials(const CredentialRequest&) override { return {}; }
    };
    const auto provider = std::make_shared<Provider>();
    const auto callAll = [&](CMAdapter& adapter) {
        adapter.checkin(a, u"text");
        adapter.checkin(files, u"texts");
        adapter.addFiles(files);
        adapter.removeFiles(files);
        adapter.moveFile(a, b);
        adapter.uncheckout(files);
        adapter.discardChanges();
        EXPECT_THROW(adapter.checkout(files), std::length_error);
        adapter.resolveConflict(a);
        adapter.exportRevision(a, revision, b);
        adapter.setCredentialProvider(provider);
        return line(
            toUtf8(adapter.getUserInfo().email), adapter.getMetadataFolder().folder,
            toUtf8(adapter.getMetadataFiles().at(0)),
            adapter.isFeatureSupported(SupportedFeature::Checkout),
            adapter.getStatus(files).begin()->first, adapter.getStatus(a, true).begin()->first,
            adapter.getStatus(a, false).size(), adapter.listRevisions(a, revision).size(),
            adapter.findRevision(a, u"text") != nullptr, adapter.getCurrentRevision(a) != nullptr,
            adapter.getParentRevisions(revision).size(),
            adapter.getConflictRevisions(a).base != nullptr, adapter.getRootFolder(),
            toUtf8(adapter.getForbiddenFileNames().at(0)),
            toUtf8(adapter.getRepositorySpecifier(a)), toUtf8(adapter.getInitialCheckinMessage()),
            std::any_cast<int>(adapter.getSubsystem(typeid(int))));
    };
    const auto expected = callAll(*test::makeMemoryAdapter(copy));
    const auto calls = copy->takeCalls();
    CMAdapterDecorator decorator(
        std::make_unique<CMAdapterDecorator>(test::makeMemoryAdapter(copy)));
    EXPECT_EQ(callAll(decorator), expected);
    EXPECT_EQ(copy->takeCalls(), calls);
    EXPECT_THROW(decorator.ignoreFile(a), exception::NotAvailableError) << "not passed on";
}

TEST(FileProperty, EqualTextsShareOneAllocationWhileInUse) {
    auto first = std::make_unique<FileProperty>(u"name", u"a value longer than a short string");
    const FileProperty second(u"other", u"a value longer than a short string");
    EXPECT_EQ(&first->getValue(), &second.getValue());
    EXPECT_NE(*first, second);
    first.reset();
    EXPECT_EQ(FileProperty(u"x", second.getValue()).getValue(), second.getValue());
}

// Last users that go while others come: a lost or dangling entry shows under the sanitizers.
TEST(FileProperty, StormOfComingAndGoingUsers) {
    test::onThreads(4, [](int) {
        for (int i = 0; i < 5'000; ++i) {
            const UString value(20, static_cast<char16_t>(u'a' + i % 3));
            const FileProperty one(u"storm", value), two(u"storm", value);
            ASSERT_EQ(one.getValue(), value);
            ASSERT_EQ(one, two);
        }
    });
}

TEST(Interactor, AKeyHoldsOneConnection) {
    auto interactor = std::make_unique<CMApplicationInteractor>();
    auto& terminator = interactor->getTerminator();
    std::string heard;
    const auto listener = [&](char mark) { return [&heard, mark] { heard += mark; }; };
    const auto first = terminator.connect(listener('a'));
    terminator.keepConnection("key", first);
    terminator.keepConnection("other", terminator.connect(listener('b')));
    terminator.keepConnection("key", terminator.connect(listener('c')));
    EXPECT_FALSE(first.connected());
    terminator.trigger();
    EXPECT_EQ(heard, "bc");
    terminator.removeConnection("unknown");
    terminator.removeConnection("key");
    terminator.trigger();
    EXPECT_EQ(heard, "bcb");

    boost::signals2::signal<void()> elsewhere;
    const auto foreign = elsewhere.connect(listener('d'));
    terminator.keepConnection("foreign", foreign);
    interactor.reset();
    EXPECT_FALSE(foreign.connected()) << "keyed connections go with the interactor";
}

} // namespace
} // namespace quendo
