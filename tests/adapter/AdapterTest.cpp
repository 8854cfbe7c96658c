#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/CredentialProvider.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/support/Testing.h"

#include <any>

namespace quendo {
namespace {

using Files = std::vector<Path>;
using Names = std::vector<UString>;
using States = std::map<Path, FileState>;
using Revisions = std::vector<std::unique_ptr<Revision>>;
using One = std::unique_ptr<Revision>;
using From = std::optional<std::reference_wrapper<const Revision>>;
using P = const Path&;
using L = const Files&;
using R = const Revision&;
using T = const UString&;

template <class... Words>
std::string line(const Words&... words) {
    std::ostringstream text;
    ((text << words << ' '), ...);
    return text.str();
}

/// Notes each call with its arguments, those that come by reference by their addresses.
struct Recorder : CMAdapter {
    explicit Recorder(std::vector<std::string>& calls) : m_calls(calls) {}
    ~Recorder() override { note("end"); }
    template <class... Words>
    void note(const Words&... words) const {
        m_calls.push_back(line(words...));
    }
    std::vector<std::string>& m_calls;
    const MetadataFolder folder{Path(u"/root"), {}};
    const FileState state{LocalStatus::Modified};

    UserInfo getUserInfo() const override { return note("user"), UserInfo{u"n", u"e"}; }
    MetadataFolder getMetadataFolder() const override { return note("metadata"), folder; }
    Names getMetadataFiles() const override { return note("files"), Names{u"m"}; }
    bool isFeatureSupported(SupportedFeature f) const override { return note(int(f)), true; }
    void checkin(P p, T t) const override { note("checkin", &p, &t); }
    void checkin(L l, T t) const override { note("checkin", &l, &t); }
    void addFiles(L l) const override { note("add", &l); }
    void removeFiles(L l) const override { note("remove", &l); }
    void moveFile(P p, P q) const override { note("move", &p, &q); }
    void uncheckout(L l) const override { note("uncheckout", &l); }
    void discardChanges() const override { note("discard"); }
    void checkout(L) const override { throw std::length_error("back end"); }
    void resolveConflict(P p) const override { note("resolve", &p); }
    States getStatus(L l) const override { return note("status", &l), States{{l[0], state}}; }
    States getStatus(P p, bool r) const override {
        return note("status", &p, r), States{{p, state}};
    }
    Revisions listRevisions(P p, From f) const override {
        return note(&p, &f->get()), Revisions(2);
    }
    One findRevision(P p, T t) const override { return note(&p, &t), One(new Revision); }
    One getCurrentRevision(P p) const override { return note("current", &p), One(new Revision); }
    Revisions getParentRevisions(R r) const override { return note("parents", &r), Revisions(3); }
    void exportRevision(P p, R r, P q) const override { note("export", &p, &r, &q); }
    ConflictRevisions getConflictRevisions(P p) const override {
        return note("sides", &p), ConflictRevisions{One(new Revision), {}, {}};
    }
    Path getRootFolder() const override { return note("root"), folder.folder; }
    Names getForbiddenFileNames() const override { return note("forbidden"), Names{u"f"}; }
    UString getRepositorySpecifier(P p) const override { return note("specifier", &p), u"s"; }
    UString getInitialCheckinMessage() const override { return note("message"), u"i"; }
    std::any getSubsystem(const std::type_info& t) override { return note("subsystem", &t), 7; }
    void setCredentialProvider(std::weak_ptr<CredentialProvider> w) override {
        note(w.lock().get());
    }
    void ignoreFile(P) override { ADD_FAILURE() << "the decorator is asked"; }
};

TEST(CMAdapterDecorator, ForwardsEachCallOnceAndUnchangedThroughTwoLayers) {
    EXPECT_THROW(CMAdapterDecorator(nullptr), std::invalid_argument);
    const Path a(u"/a"), b(u"/b");
    const Files files{a, b};
    const UString text = u"text";
    const Revision revision;
    struct Provider : CredentialProvider {
        std::optional<Credentials> getCredentials(const CredentialRequest&) override { return {}; }
    };
    const auto provider = std::make_shared<Provider>();
    const auto callAll = [&](CMAdapter& adapter) {
        adapter.checkin(a, text);
        adapter.checkin(files, text);
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
            adapter.listRevisions(a, revision).size(), adapter.findRevision(a, text) != nullptr,
            adapter.getCurrentRevision(a) != nullptr, adapter.getParentRevisions(revision).size(),
            adapter.getConflictRevisions(a).base != nullptr, adapter.getRootFolder(),
            toUtf8(adapter.getForbiddenFileNames().at(0)),
            toUtf8(adapter.getRepositorySpecifier(a)), toUtf8(adapter.getInitialCheckinMessage()),
            std::any_cast<int>(adapter.getSubsystem(typeid(int))));
    };
    std::vector<std::string> direct, through;
    const auto expected = callAll(*std::make_unique<Recorder>(direct));
    {
        CMAdapterDecorator decorator(
            std::make_unique<CMAdapterDecorator>(std::make_unique<Recorder>(through)));
        EXPECT_EQ(callAll(decorator), expected);
        EXPECT_THROW(decorator.ignoreFile(a), exception::NotAvailableError);
    }
    EXPECT_EQ(through, direct);
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

TEST(FileState, ComparesByContentAndFindsTheFirstProperty) {
    static_assert(sizeof(FileState) == 24);
    const FileState plain(LocalStatus::Modified);
    const FileState state(LocalStatus::Modified, false, {{u"columns", u"D."}, {u"columns", u"??"}});
    EXPECT_EQ(state, FileState(LocalStatus::Modified, false, state.getProperties()));
    EXPECT_NE(state, plain);
    EXPECT_EQ(plain, FileState(LocalStatus::Modified, false, {}));
    EXPECT_NE(plain, FileState(LocalStatus::Modified, true));
    ASSERT_NE(state.findProperty(property::columns), nullptr);
    EXPECT_EQ(*state.findProperty(property::columns), u"D.");
    EXPECT_EQ(state.findProperty(u"none"), nullptr);
}

} // namespace
} // namespace quendo
