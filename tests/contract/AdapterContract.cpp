#include "tests/contract/AdapterContract.h"

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/exception/AdapterErrors.h"
#include "tests/support/Process.h"
#include "tests/support/Testing.h"
#include "tests/support/TreeWatch.h"

#include <sys/stat.h>

// One working copy is put into every state at once, and almost all rules are questions about it.
// The answers of the two folder queries of the root are compared with the table below; every other
// answer is then compared with a part of these two.

namespace quendo::test {
namespace {

using States = std::map<Path, FileState>;
using enum LocalStatus;

struct Row {
    std::string path;
    LocalStatus state;
    bool isTracked, isFolder;
};

/// What every working copy of the suite holds.
std::vector<Row> layout() {
    const auto odd = "src/odd \"name\"\twith\nall \xff.txt";
    enum { Tracked, TrackedFolder, Untracked, UntrackedFolder };
    const std::tuple<int, LocalStatus, std::vector<const char*>> table[] = {
        {TrackedFolder, Unmodified, {"", "src", "src/deep", "src/deep/er"}},
        {Tracked, Unmodified, {"plain.txt", "src/history.txt", "src/deep/er/plain.txt"}},
        {Tracked, Modified, {"modified.txt", odd}},
        {Tracked, Missing, {"missing.txt", "gone/one.txt", "gone/deep/two.txt"}},
        {Tracked, Deleted, {"deleted.txt", "kept.txt"}},
        {Tracked, Added, {"added.txt", "src/added.txt"}},
        {Tracked, Unknown, {"unreadable.txt"}},
        {UntrackedFolder, NotUnderSourceControl, {"fresh", "fresh/deep"}},
        {Untracked, NotUnderSourceControl, {"new.txt", "src/new.txt", "fresh/new.txt"}},
        {Untracked, NotUnderSourceControl, {"fresh/deep/new.txt"}},
        {UntrackedFolder, Ignored, {"skipped"}},
        {Untracked, Ignored, {"ignored.txt", "src/skipped.txt"}},
        {UntrackedFolder, External, {"nested"}},
    };
    std::vector<Row> rows;
    for (const auto& [kind, state, paths] : table)
        for (const auto* path : paths)
            rows.push_back({path, state, kind <= TrackedFolder, kind % 2 == 1});
    return rows;
}

Path toPath(const fs::path& path) {
    return Path::fromNative(path.native());
}

std::string describe(const FileState& state) {
    auto text = std::string(toString(state.getState())) + (state.isFolder() ? " folder" : "");
    for (const auto& property : state.getProperties())
        text += " " + toUtf8(property.getName()) + "=" + toUtf8(property.getValue());
    return text;
}

/// Empty when they are equal.
std::string difference(const States& wanted, const States& got) {
    std::string text;
    for (const auto& [sign, states, others] :
         {std::tuple{"\n  lacks ", &wanted, &got}, {"\n  has ", &got, &wanted}})
        for (const auto& [path, state] : *states)
            if (const auto other = others->find(path);
                other == others->end() || !(other->second == state))
                text += sign + path.toUtf8() + ": " + describe(state);
    return text;
}

States atOrBelow(const States& all, const Path& path) {
    auto result = all;
    std::erase_if(result, [&](const auto& entry) {
        return entry.first != path && !entry.first.isBelow(path);
    });
    return result;
}

/// A revision as text; two are the same when their texts are.
std::string describe(const std::unique_ptr<Revision>& revision) {
    if (!revision)
        return "no revision";
    std::ostringstream text;
    text << toUtf8(revision->id + u'|' + revision->author + u'|' + revision->authorEmail + u'|' +
                   revision->message)
         << revision->date.time_since_epoch().count() << '|' << revision->path;
    return text.str();
}

/// An interactor that knows who connected to its terminator.
class WatchedInteractor : public CMApplicationInteractor, private Terminator {
public:
    Terminator& getTerminator() override { return *this; }

    /// Runs once, when the next call has connected.
    void atNextConnection(std::function<void()> action) {
        std::lock_guard lock(m_mutex);
        m_action = std::move(action);
    }
    bool isConnected() {
        std::lock_guard lock(m_mutex);
        return std::ranges::any_of(m_connections, &boost::signals2::connection::connected);
    }

private:
    boost::signals2::connection connect(const Slot& slot) override {
        const auto connection = CMApplicationInteractor::getTerminator().connect(slot);
        std::unique_lock lock(m_mutex);
        m_connections.push_back(connection);
        const auto action = std::exchange(m_action, nullptr);
        lock.unlock();
        if (action)
            action();
        return connection;
    }
    void keepConnection(const std::string& key, boost::signals2::connection c) override {
        CMApplicationInteractor::getTerminator().keepConnection(key, c);
    }
    void removeConnection(const std::string& key) override {
        CMApplicationInteractor::getTerminator().removeConnection(key);
    }
    void trigger() override { CMApplicationInteractor::getTerminator().trigger(); }

    std::mutex m_mutex;
    std::vector<boost::signals2::connection> m_connections;
    std::function<void()> m_action;
};

class Contract {
public:
    explicit Contract(const ContractSubject& subject)
        : m_subject(subject), m_factory(subject.factory()),
          m_metadataName(toUtf8(m_factory->getMetadataName())) {}

    std::vector<std::string> run() {
        check("powerless", &Contract::prepare);
        if (!m_adapter)
            return std::move(m_violations);
        const auto before = snapshot(m_area);
        TreeWatch watch(m_area);
        using enum SupportedFeature;
        check("factory", &Contract::checkFactory);
        check("recognition", &Contract::checkRecognition);
        check("unusable", &Contract::checkUnusable);
        check("root", &Contract::checkRoot);
        check("unreadable", &Contract::checkLayout);
        check("partial", &Contract::checkPartial);
        check("outside", &Contract::checkOutside);
        check("nothing", &Contract::checkEmptyLists);
        check("cancellation", &Contract::checkCancellation);
        check("revisions", &Contract::checkRevisions, ListRevisions);
        check("exports", &Contract::checkExports, ExportRevision);
        check("conflicts", &Contract::checkConflicts, SupportedFeature::ConflictRevisions);
        check("threads", &Contract::checkThreads);
        for (const auto& name : watch.drain())
            expect(name.ends_with(".lock") ? "locks" : "harmless", false, "wrote " + name);
        for (const auto& changed : changesBetween(before, snapshot(m_area)))
            expect("harmless", false, "changed " + changed);
        check("metadata", &Contract::checkMetadata);
        check("features", &Contract::checkFeatures);
        return std::move(m_violations);
    }

private:
    void check(const char* rule, void (Contract::*body)(),
               std::optional<SupportedFeature> feature = {}) {
        if (feature && !supports(*feature))
            return;
        m_rule = rule;
        try {
            (this->*body)();
        } catch (const std::exception& error) {
            expect(false, std::string("threw ") + error.what());
        }
    }
    void expect(bool holds, const std::string& what) { expect(m_rule, holds, what); }
    void expect(const char* rule, bool holds, const std::string& what) {
        if (!holds)
            m_violations.push_back(rule + (": " + what));
    }
    void expectEqual(const States& wanted, const States& got, const std::string& question) {
        const auto text = difference(wanted, got);
        expect(text.empty(), question + ":" + text);
    }
    template <class Error>
    void expectThrow(const std::string& what, const std::function<void()>& body) {
        try {
            body();
        } catch (const Error&) {
            return;
        }
        expect(false, what + " does not throw");
    }

    fs::path at(const std::string& name) const { return name.empty() ? m_root : m_root / name; }
    Path path(const std::string& name) const { return toPath(at(name)); }
    std::unique_ptr<CMAdapter> adapterFor(const fs::path& root) {
        return m_factory->createAdapter(toPath(root), m_interactor);
    }

    bool supports(SupportedFeature feature) const { return m_adapter->isFeatureSupported(feature); }

    /// Calls one of the subject's functions; false when it has none of that name.
    bool call(const fs::path& root, const std::string& function, const std::string& argument = {}) {
        fs::create_directories(root);
        ProcessOptions options;
        options.workingFolder = root;
        const auto script = m_subject.script + "type \"$1\" >&2 || exit 99; \"$@\"";
        const auto result = runProcess({"sh", "-euc", script, "sh", function, argument}, options);
        if (result.exitCode != 0 && result.exitCode != 99)
            throw std::runtime_error(function + " " + argument + ": " + result.errors);
        return result.exitCode == 0;
    }

    /// A further working copy with one committed file, file.txt, and an untracked one, new.txt.
    fs::path makeCopy(const fs::path& name) {
        const auto root = m_folder.path() / name;
        call(root, "create");
        writeFile(root / "file.txt", "one\n");
        call(root, "commit", "one");
        writeFile(root / "new.txt", "new\n");
        return root;
    }

    std::string exported(const Path& file, const Revision& revision,
                         const std::string& name = "target") const {
        const auto target = m_folder.path() / name;
        m_adapter->exportRevision(file, revision, toPath(target));
        auto content = readFile(target);
        fs::remove(target);
        return content;
    }

    void prepare() {
        ::umask(m_umask = ::umask(0));
        call(m_root, "create");
        for (const auto& row : m_layout)
            if (row.state == Ignored)
                call(m_root, "ignore", row.path);
            else if (row.isTracked && !row.isFolder && row.state != Added)
                writeFile(at(row.path), "same\n");
        for (const std::string text : {"first\n", "second\n", "third\n"}) {
            writeFile(at("src/history.txt"), text);
            call(m_root, "commit", text);
        }
        writeFile(at("conflict.txt"), "base\n");
        call(m_root, "commit", "a file to be conflicted");
        m_conflicted = call(m_root, "conflict", "conflict.txt");
        m_layout.push_back({"conflict.txt", m_conflicted ? Conflicted : Unmodified, true, false});

        for (const auto& row : m_layout) {
            if (row.state == Modified || row.state == Unknown)
                writeFile(at(row.path), "else\n");
            if (row.state == Added || (!row.isTracked && !row.isFolder))
                writeFile(at(row.path), "new\n");
            if (row.state == Added || row.state == Deleted)
                call(m_root, row.state == Added ? "add" : "remove", row.path);
        }
        writeFile(at("skipped/deep/file.txt"), "ignored\n");
        for (const auto* name : {"deleted.txt", "missing.txt", "gone"})
            fs::remove_all(at(name));
        call(at("nested"), "create");
        writeFile(at("nested/inner.txt"), "inner\n");
        call(at("nested"), "commit", "inner");
        writeFile(m_area / "outside.txt", "outside\n");
        writeFile(m_area / "copy-two" / "plain.txt", "outside\n");
        fs::create_directory_symlink(m_area, m_folder.path() / "alias");

        fs::permissions(at("unreadable.txt"), fs::perms::none);
        expect(!std::ifstream(at("unreadable.txt")),
               "this process can read a file of mode 000; start the tests with: setpriv "
               "--bounding-set -dac_override,-dac_read_search PROGRAM");
        m_interactor = std::make_shared<WatchedInteractor>();
        m_adapter = adapterFor(m_root);
    }

    void checkFactory() {
        expect(!m_factory->getID().empty() && m_factory->getID() == m_subject.factory()->getID(),
               "the identifier is empty, or another each time");
        expect(m_factory->getProblem().empty(), "problem: " + toUtf8(m_factory->getProblem()));
        const auto forbidden = m_adapter->getForbiddenFileNames();
        expect(std::ranges::find(forbidden, m_factory->getMetadataName()) != forbidden.end(),
               "the metadata's name is not forbidden to files");
        expect(!m_adapter->getSubsystem(typeid(Contract)).has_value(),
               "an unknown subsystem is not an empty any");
    }

    void checkRecognition() {
        fs::create_directories(m_folder.path() / "empty");
        for (const auto& folder : {m_root, m_folder.path() / "alias/copy", at("nested")})
            expect(m_factory->canManage(toPath(folder)), "does not manage " + folder.native());
        for (const auto& folder : {at("src"), at("fresh"), at("plain.txt"), at(m_metadataName),
                                   at("nosuch"), m_area, m_folder.path() / "empty"})
            expect(!m_factory->canManage(toPath(folder)), "manages " + folder.native());
    }

    void checkUnusable() {
        for (const std::string ruin : {"damage", "foreign"}) {
            makeCopy(ruin);
            const auto inner = makeCopy(ruin + "/inner");
            if (!call(inner, ruin))
                continue;
            expect(m_factory->canManage(toPath(inner)), ruin + ": it is not recognised");
            expectThrow<exception::SourceControlException>(ruin, [&] { adapterFor(inner); });
        }
    }

    void checkRoot() {
        for (const auto& spelling : {m_root, m_folder.path() / "alias/copy"}) {
            const auto adapter = adapterFor(spelling);
            const auto root = adapter->getRootFolder();
            expect(root == toPath(m_root), "opened as " + spelling.native() + ": " + root.toUtf8());
            expectEqual({{path("plain.txt"), FileState(Unmodified)}},
                        adapter->getStatus({path("plain.txt")}), "opened as " + spelling.native());
        }
    }

    /// Asks the two questions that the rest is compared with.
    void checkLayout() {
        m_full = m_adapter->getStatus(path(""), true);
        m_tracked = m_adapter->getStatus(path(""), false);
        States rest = m_full, restTracked = m_tracked;
        for (const auto& [name, state, isTracked, isFolder] : m_layout) {
            const char* rule = state == Unknown ? "unreadable"
                               : isFolder       ? "folders"
                               : isTracked      ? "tracked"
                                                : "untracked";
            for (auto* left : {&rest, &restTracked}) {
                if (left == &restTracked && !isTracked)
                    continue;
                const auto found = left->extract(path(name));
                const auto got = found ? describe(found.mapped()) : "nothing";
                expect(rule,
                       found && found.mapped().getState() == state &&
                           found.mapped().isFolder() == isFolder,
                       path(name).toUtf8() + ": " + got + ", not " +
                           describe(FileState(state, isFolder)));
                if (found && state == Unmodified)
                    expect("plain", found.mapped().getProperties().empty(), got);
                if (found && state == Unknown)
                    expect(rule, found.mapped().findProperty(property::why) != nullptr,
                           "it does not say why: " + got);
            }
        }
        expect("untracked", rest.empty(), "too much:" + difference({}, rest));
        expect("flag", restTracked.empty(), "too much:" + difference({}, restTracked));
    }

    void checkPartial() {
        std::vector<Path> paths{path("gone"), path("gone/deep")};
        for (const auto& [path, state] : m_full) {
            paths.push_back(path);
            const auto tracked = m_tracked.find(path);
            expect(tracked == m_tracked.end() || tracked->second == state,
                   "the flag changes the state of " + path.toUtf8());
        }
        for (const auto& path : paths) {
            const auto wanted = atOrBelow(m_full, path);
            expectEqual(wanted, m_adapter->getStatus({path}), "alone, " + path.toUtf8());
            expectEqual(wanted, m_adapter->getStatus(path, true), "as folder, " + path.toUtf8());
            expectEqual(atOrBelow(m_tracked, path), m_adapter->getStatus(path, false),
                        "without the flag, " + path.toUtf8());
        }
        // Below a collapsed folder there is nothing in the full answer, but it can be asked for.
        const auto below = path("skipped/deep/file.txt");
        expectEqual({{below, FileState(Ignored)}}, m_adapter->getStatus({below}),
                    "in an ignored folder");
        paths.insert(paths.end(), {paths.front(), path("nosuch")});
        expectEqual(m_full, m_adapter->getStatus(paths), "all as a list");
        std::erase_if(paths, [&](const Path& each) { return each == path(""); });
        std::vector<Path> some{path("nosuch"), paths.back()};
        States wanted;
        for (std::size_t i = 1; i < paths.size(); i += 3) {
            some.push_back(paths[i]);
            wanted.merge(atOrBelow(m_full, paths[i]));
        }
        expectEqual(wanted, m_adapter->getStatus(some), "some as a list");
    }

    void checkOutside() {
        std::vector<Path> paths;
        for (const auto& each :
             {m_area, m_area / "outside.txt", m_area / "copy-two", m_area / "copy-two/plain.txt",
              m_root / "../outside.txt", at("nosuch"), at("src/nosuch/below"),
              at("plain.txt/below"), at(m_metadataName)})
            paths.push_back(toPath(each));
        for (const auto& entry : fs::recursive_directory_iterator(at(m_metadataName)))
            if (paths.size() < 25)
                paths.push_back(toPath(entry.path()));
        for (const auto& each : paths)
            expectEqual({}, m_adapter->getStatus(each, true), "as folder, " + each.toUtf8());
        expectEqual({}, m_adapter->getStatus(paths), "as a list");
        paths.push_back(path("plain.txt"));
        expectEqual({{paths.back(), FileState(Unmodified)}}, m_adapter->getStatus(paths),
                    "as a list with one that is to be answered");
    }

    void checkEmptyLists() {
        const std::vector<Path> none;
        expectEqual({}, m_adapter->getStatus(none), "getStatus");
        if (supports(SupportedFeature::AddFiles))
            m_adapter->addFiles(none);
        if (supports(SupportedFeature::RemoveFiles))
            m_adapter->removeFiles(none);
    }

    void checkCancellation() {
        // The trigger comes from a thread of its own, after the call has connected.
        const auto cancel = [this] {
            std::async(std::launch::async, [this] {
                m_interactor->getTerminationTrigger().trigger();
            }).get();
        };
        const std::function<States()> questions[] = {
            [&] { return m_adapter->getStatus(path(""), true); },
            [&] { return m_adapter->getStatus(path(""), false); },
            [&] { return m_adapter->getStatus({path("modified.txt")}); }};
        for (const auto& question : questions) {
            const auto answer = question();
            m_interactor->atNextConnection(cancel);
            expectThrow<exception::OperationCancelledError>("a cancelled query", question);
            m_interactor->atNextConnection(nullptr);
            expectEqual(answer, question(), "after a cancelled one");
            cancel();
            expectEqual(answer, question(), "after a trigger");
            m_interactor->atNextConnection([this] {
                const auto other = std::make_shared<QueryOrigin>();
                const QueryOrigin::TriggerScope scope(*other);
                m_interactor->getTerminationTrigger().trigger();
            });
            expectEqual(answer, question(), "while another refresh is cancelled");
            m_interactor->atNextConnection(nullptr);
            const auto origin = std::make_shared<QueryOrigin>();
            origin->cancel();
            const QueryOrigin::WorkScope scope(origin);
            expectThrow<exception::OperationCancelledError>("a query cancelled before", question);
        }
        expect(!m_interactor->isConnected(), "a connection is left after the call");
        const boost::signals2::scoped_connection connection =
            m_interactor->getProgressDispatcher().connect(
                [](const UString&, double) { throw std::runtime_error("a listener's own error"); });
        expectEqual(m_full, m_adapter->getStatus(path(""), true), "beside a throwing listener");
    }

    void checkRevisions() {
        const auto file = path("src/history.txt");
        const auto all = m_adapter->listRevisions(file, std::nullopt);
        const std::vector<UString> messages{u"third", u"second", u"first"};
        expect(all.size() == 3, std::to_string(all.size()) + " revisions instead of 3");
        for (std::size_t i = 0; i < all.size() && i < messages.size(); ++i) {
            const auto text = describe(all[i]);
            expect(all[i]->message.starts_with(messages[i]) && all[i]->path == file,
                   "not in its place: " + text);
            expect(describe(m_adapter->findRevision(file, all[i]->id)) == text,
                   "found differently: " + text);
            const auto rest = m_adapter->listRevisions(file, *all[i]);
            expect(rest.size() == all.size() - i && describe(rest.front()) == text,
                   "the list does not start at " + text);
            const auto parents = m_adapter->getParentRevisions(*all[i]);
            expect(i + 1 == all.size()
                       ? parents.empty()
                       : parents.size() == 1 && parents.front()->id == all[i + 1]->id,
                   "wrong parents of " + text);
        }
        expect(!all.empty() &&
                   describe(m_adapter->getCurrentRevision(file)) == describe(all.front()),
               "the current revision is not the first of the list");
        for (const auto* name : {"added.txt", "new.txt"})
            expect(m_adapter->listRevisions(path(name), std::nullopt).empty() &&
                       !m_adapter->getCurrentRevision(path(name)),
                   std::string(name) + " has revisions");
        expectThrow<std::exception>("an unknown revision",
                                    [&] { m_adapter->findRevision(file, u"no-such-revision"); });
    }

    void checkExports() {
        const auto file = path("src/history.txt");
        for (const auto& revision : m_adapter->listRevisions(file, std::nullopt))
            expect(exported(file, *revision).starts_with(toUtf8(revision->message).substr(0, 5)),
                   "wrong content in " + describe(revision));
        const auto newest = m_adapter->getCurrentRevision(file);
        const auto folder = m_folder.path() / "exports";
        writeFile(folder / "taken", "mine");
        for (const auto& [what, source, target] :
             {std::tuple{"an existing target", "src/history.txt", "taken"},
              {"a file that is not in the revision", "new.txt", "absent"},
              {"a target in no folder", "src/history.txt", "no/target"}})
            expectThrow<std::exception>(what, [&] {
                const auto revision = m_adapter->findRevision(path(source), newest->id);
                m_adapter->exportRevision(path(source), *revision, toPath(folder / target));
            });
        expect(readFile(folder / "taken") == "mine", "an existing target was overwritten");
        expect(std::distance(fs::directory_iterator(folder), {}) == 1, "something is left behind");
    }

    void checkConflicts() {
        const auto none = m_adapter->getConflictRevisions(path("modified.txt"));
        expect(!none.base && !none.ours && !none.theirs, "a file without conflict has sides");
        if (!m_conflicted)
            return;
        const auto sides = m_adapter->getConflictRevisions(path("conflict.txt"));
        std::string all;
        for (const auto* side : {&sides.base, &sides.ours, &sides.theirs})
            all += *side ? exported(path("conflict.txt"), **side) : "nothing\n";
        expect(all == "base\nours\ntheirs\n", "wrong sides: " + all);
    }

    /// The answers of all operations that may be called beside others.
    std::string bypassingAnswers(const std::string& name) const {
        std::ostringstream text;
        const auto user = m_adapter->getUserInfo();
        const auto metadata = m_adapter->getMetadataFolder();
        const auto file = path("src/history.txt");
        text << toUtf8(user.name) << '|' << toUtf8(user.email) << '|' << metadata.folder << '|'
             << metadata.filter(metadata.folder / u"x") << '|' << m_adapter->getRootFolder() << '|'
             << toUtf8(m_adapter->getRepositorySpecifier(file)) << '|'
             << toUtf8(m_adapter->getInitialCheckinMessage()) << '|';
        if (supports(SupportedFeature::ListRevisions)) {
            const auto current = m_adapter->getCurrentRevision(file);
            text << describe(current) << describe(m_adapter->findRevision(file, current->id));
            for (const auto& parent : m_adapter->getParentRevisions(*current))
                text << describe(parent);
            if (supports(SupportedFeature::ExportRevision))
                text << exported(file, *current, name);
        }
        if (supports(SupportedFeature::ConflictRevisions))
            text << !m_adapter->getConflictRevisions(path("conflict.txt")).theirs;
        return text.str();
    }

    void checkThreads() {
        const auto wanted = bypassingAnswers("target");
        std::atomic<bool> done{false};
        std::vector<std::future<std::string>> others;
        for (int i = 0; i < 4; ++i)
            others.push_back(std::async(std::launch::async, [&, i] {
                std::string answer = wanted;
                for (int round = 0; answer == wanted && (round < 3 || !done); ++round)
                    answer = bypassingAnswers("target" + std::to_string(i));
                return answer;
            }));
        std::string statusError;
        try {
            for (int i = 0; i < 10 && statusError.empty(); ++i)
                statusError = difference(m_full, m_adapter->getStatus(path(""), true));
        } catch (const std::exception& error) {
            statusError = error.what();
        }
        done = true;
        for (const auto& other : others)
            other.wait();
        const auto mask = ::umask(m_umask);
        expect(mask == m_umask, "the process has another umask now");
        expect(statusError.empty(), "getStatus beside them: " + statusError);
        for (auto& other : others)
            if (const auto got = other.get(); got != wanted)
                expect(false, got + " instead of " + wanted);
    }

    /// Changes states through the metadata alone, and sees whether a watcher that asks the filter
    /// would have heard of it.
    void checkMetadata() {
        const auto root = makeCopy("metadata");
        const auto metadata = adapterFor(root)->getMetadataFolder();
        const fs::path folder = metadata.folder.toNative();
        expect(fs::is_directory(folder), folder.native() + " is no folder");
        for (const auto& [change, argument] :
             {std::pair{"add", "new.txt"}, {"remove", "file.txt"}, {"commit", "two"}}) {
            const auto before = snapshot(folder);
            call(root, change, argument);
            bool heard = false;
            for (const auto& changed : changesBetween(before, snapshot(folder))) {
                if (!metadata.filter(Path::fromNative(changed)))
                    continue;
                heard = true;
                for (auto on = fs::path(changed).parent_path(); on != folder; on = on.parent_path())
                    expect(metadata.filter(toPath(on)), "the way is cut off at " + on.native());
            }
            expect(heard, change + std::string(" passes unheard"));
        }
    }

    void checkFeatures() {
        const auto root = makeCopy("features");
        const auto adapter = adapterFor(root);
        const auto file = toPath(root / "file.txt"), fresh = toPath(root / "new.txt");
        const auto target = toPath(root / "target");
        Revision revision;
        revision.id = u"1";
        revision.path = file;
        using enum SupportedFeature;
        const std::vector<std::pair<SupportedFeature, std::function<void()>>> operations{
            {ListRevisions, [&] { adapter->listRevisions(file, std::nullopt); }},
            {ListRevisions, [&] { adapter->findRevision(file, u"1"); }},
            {ListRevisions, [&] { adapter->getCurrentRevision(file); }},
            {ListRevisions, [&] { adapter->getParentRevisions(revision); }},
            {ExportRevision, [&] { adapter->exportRevision(file, revision, target); }},
            {SupportedFeature::ConflictRevisions, [&] { adapter->getConflictRevisions(file); }},
            {Checkin, [&] { adapter->checkin(file, u"m"); }},
            {Checkin, [&] { adapter->checkin(std::vector{file}, u"m"); }},
            {AddFiles, [&] { adapter->addFiles({fresh}); }},
            {MoveFile, [&] { adapter->moveFile(file, target); }},
            {Uncheckout, [&] { adapter->uncheckout({fresh}); }},
            {Checkout, [&] { adapter->checkout({file}); }},
            {ResolveConflict, [&] { adapter->resolveConflict(file); }},
            {IgnoreFile, [&] { adapter->ignoreFile(fresh); }},
            {DiscardChanges, [&] { adapter->discardChanges(); }},
            {RemoveFiles, [&] { adapter->removeFiles({file}); }}};
        for (std::size_t row = 0; row < operations.size(); ++row) {
            const auto name = "operation " + std::to_string(row + 1);
            const auto before = snapshot(root);
            bool available = true;
            try {
                operations[row].second();
            } catch (const exception::NotAvailableError&) {
                available = false;
            } catch (const std::exception&) {
                // Refused for what it was asked; that is an answer.
            }
            expect(available == adapter->isFeatureSupported(operations[row].first),
                   name + (available ? " does not say" : " says") + " that it is not available");
            expect(available || snapshot(root) == before,
                   name + " is not available and changed something");
        }
    }

    const ContractSubject& m_subject;
    const std::shared_ptr<CMAdapterFactory> m_factory;
    const std::string m_metadataName;
    TemporaryFolder m_folder;
    const fs::path m_area = m_folder.path() / "area"; ///< holds the copy, and what lies beside it
    const fs::path m_root = m_area / "copy";
    std::vector<Row> m_layout = layout();
    bool m_conflicted = false;
    mode_t m_umask = 0;
    std::shared_ptr<WatchedInteractor> m_interactor;
    std::unique_ptr<CMAdapter> m_adapter;
    States m_full;
    States m_tracked;
    const char* m_rule = nullptr;
    std::vector<std::string> m_violations;
};

} // namespace

std::vector<std::string> checkAdapterContract(const ContractSubject& subject) {
    return Contract(subject).run();
}

} // namespace quendo::test
