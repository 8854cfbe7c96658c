#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/GitAdapterFactory.h"
#include "tests/support/GitSandbox.h"
#include "tests/support/Testing.h"

namespace quendo::git {

/// Everything that an operation may change: files, index, commits, states of merges, locks.
inline std::string everything(const test::GitSandbox& sandbox, const fs::path& folder) {
    const auto script =
        "git --no-optional-locks status --porcelain -uall --ignored; git ls-files -s\n"
        "git log --format=%H; cat .git/HEAD; find .git -name '*.lock'; find .git/quendo -type f\n"
        "find . -path ./.git -prune -o -type f -exec md5sum {} + | sort -k2\n"
        "find . -path ./.git -prune -o -printf '%p %y %m %l\\n' | sort\n"
        "ls .git | grep -v -e COMMIT_EDITMSG -e quendo";
    return sandbox.run({"sh", "-c", script}, folder).output;
}

/// A real working copy, changed by the adapter and by shell scripts.
class Copy {
public:
    /// "a" to "d" and "n/x", "n/y" are tracked, "*.o" is ignored.
    static constexpr const char* usual =
        "git init -q; for f in a b c d; do echo $f > $f; done; mkdir n; echo x > n/x\n"
        "echo y > n/y; echo '*.o' > .gitignore; git add .; git commit -qm start";

    /// @param script makes it, in an empty folder
    /// @param folder where the files are, as seen from there
    explicit Copy(const GitOptions& options = {}, const std::string& script = usual,
                  std::string folder = "")
        : m_folder(std::move(folder)) {
        m_sandbox.enterEnvironment();
        const auto made = m_sandbox.run({"sh", "-ec", script}, m_sandbox.work());
        EXPECT_EQ(made.exitCode, 0) << script << "\n" << made.errors;
        const auto opened = fs::exists(this->folder() / ".git") ? this->folder() : m_sandbox.work();
        m_adapter = GitAdapterFactory(options).createAdapter(Path::fromNative(opened.native()),
                                                             m_interactor);
    }

    CMAdapter& adapter() { return *m_adapter; }
    const std::shared_ptr<CMApplicationInteractor>& interactor() { return m_interactor; }
    const test::GitSandbox& sandbox() const { return m_sandbox; }
    fs::path folder() const {
        const auto folder = m_sandbox.work() / m_folder;
        return m_folder.empty() ? m_sandbox.work() : folder.lexically_normal();
    }
    Path root() const { return Path::fromNative(folder().native()); }
    Path at(const std::string& name) const { return root().child(name); }
    std::vector<Path> all(const std::vector<std::string>& names) const {
        std::vector<Path> paths;
        for (const auto& name : names)
            paths.push_back(at(name));
        return paths;
    }

    std::string sh(const std::string& script) const {
        const auto result = m_sandbox.run({"sh", "-ec", script}, folder());
        EXPECT_EQ(result.exitCode, 0) << script << "\n" << result.errors << result.output;
        return result.output;
    }

    std::string status() const {
        return m_sandbox.git({"status", "--porcelain", "-uall", "--no-renames"}, folder());
    }

    /// Calls `heard` with each progress message, on the thread that does the operation.
    void onProgress(std::function<void(const UString&)> heard) {
        m_progress = m_interactor->getProgressDispatcher().connect(
            [heard = std::move(heard)](const UString& message, double) { heard(message); });
    }

    /// What the operation says when it refuses; nothing may have changed. Empty if it does not.
    std::string refusal(const std::function<void(Copy&)>& operation) {
        const auto before = everything(m_sandbox, folder());
        std::string words;
        try {
            operation(*this);
        } catch (const exception::SourceControlException& error) {
            words = error.what();
        }
        EXPECT_EQ(words.find('\n'), std::string::npos) << words;
        EXPECT_EQ(everything(m_sandbox, folder()), before) << words;
        return words;
    }

private:
    test::GitSandbox m_sandbox;
    const std::string m_folder;
    std::shared_ptr<CMApplicationInteractor> m_interactor =
        std::make_shared<CMApplicationInteractor>();
    boost::signals2::scoped_connection m_progress;
    std::unique_ptr<CMAdapter> m_adapter;
};

/// A program that does something else than git for one command of it, and is git otherwise.
class OtherGit {
public:
    OtherGit(const std::string& command, const std::string& instead) {
        test::writeFile(path(), "#!/bin/sh\n[ \"$1\" != " + command + " ] || { " + instead +
                                    "; }\nexec git \"$@\"\n");
        fs::permissions(path(), fs::perms::owner_all);
    }
    fs::path path() const { return m_folder.path() / "git"; }

private:
    test::TemporaryFolder m_folder;
};

using Operation = std::function<void(Copy&)>;
using Names = std::vector<std::string>;

inline Operation checkin(const Names& names) {
    return [=](Copy& copy) { copy.adapter().checkin(copy.all(names), u"#1 is mended"); };
}
inline Operation add(const Names& names) {
    return [=](Copy& copy) { copy.adapter().addFiles(copy.all(names)); };
}
inline Operation remove(const Names& names) {
    return [=](Copy& copy) { copy.adapter().removeFiles(copy.all(names)); };
}
inline Operation revert(const Names& names) {
    return [=](Copy& copy) { copy.adapter().uncheckout(copy.all(names)); };
}
inline Operation checkout(const Names& names) {
    return [=](Copy& copy) { copy.adapter().checkout(copy.all(names)); };
}
inline Operation move(const std::string& from, const std::string& to) {
    return [=](Copy& copy) { copy.adapter().moveFile(copy.at(from), copy.at(to)); };
}
inline Operation resolve(const std::string& name) {
    return [=](Copy& copy) { copy.adapter().resolveConflict(copy.at(name)); };
}
inline Operation ignore(const std::string& name) {
    return [=](Copy& copy) { copy.adapter().ignoreFile(copy.at(name)); };
}
inline const Operation discard = [](Copy& copy) { copy.adapter().discardChanges(); };

} // namespace quendo::git
