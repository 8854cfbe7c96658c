#include "quendo/git/ProcessActivity.h"
#include "tests/git/Copy.h"
#include "tests/support/OwnNamespaces.h"

#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace quendo::test {
namespace {

using Strings = std::vector<std::string>;

struct Operation {
    std::string name;
    std::string prepare; ///< by sh, where the folder "n" holds $COUNT tracked files by number
    Strings files;
};

/// What changes much: a list of files, or a folder with all that is in it.
std::vector<Operation> operationsOn(int count) {
    Strings added;
    for (int i = 1; i <= count; ++i)
        added.push_back("n/new" + std::to_string(i));
    const std::string each = "for i in $(seq $COUNT); do ",
                      change = each +
                               "echo change $i >> n/$i.s; done; rm n/1.s; git add n/2.s n/3.s; "
                               "git rm -q --cached n/4.s; rm n/4.s; ";
    return {{"add", each + "echo new $i > n/new$i; done", added},
            {"remove", "", {"n"}},
            {"move", "echo untracked > n/u", {"n", "to/a/folder"}},
            {"checkin", change + "echo new > n/new", {"n", "n/new"}},
            {"revert", change + "echo more >> n/2.s", {"n"}}};
}

/// Files of more than a page each.
const std::string fill = "mkdir n; for i in $(seq $COUNT); do "
                         "printf '%05000d\\n' $i > n/$i.s; done\n";

std::string sh(const GitSandbox& sandbox, const fs::path& folder, const std::string& script,
               int count) {
    const auto result =
        sandbox.run({"sh", "-ec", script}, folder, {{"COUNT", std::to_string(count)}});
    if (result.exitCode != 0)
        throw std::runtime_error(script + ": " + result.errors);
    return result.output;
}

/// The objects of all content in commits, in the index and on disk; and what is kept of the last
/// two.
std::set<std::string> contents(const GitSandbox& sandbox, bool withKept) {
    std::istringstream words(
        sh(sandbox, sandbox.work(),
           std::string("git rev-list --objects --all | cut -c1-40; git ls-files -s | cut -c8-47\n"
                       "find . -path ./.git -prune -o -type f -print |"
                       "git hash-object --no-filters --stdin-paths\n") +
               (withKept ? "for index in .git/quendo/kept-*/index; do [ ! -e $index ] ||"
                           "GIT_INDEX_FILE=$PWD/$index git ls-files -s | cut -c8-47; done\n"
                           "find .git/quendo -type f -name '[0-9]*' |"
                           "git hash-object --no-filters --stdin-paths\n"
                         : ""),
           0));
    return {std::istream_iterator<std::string>(words), {}};
}

// The host is killed at any moment, mostly while git runs: git goes on, and no content is gone.
TEST(NothingLost, WhenTheHostIsKilled) {
    const int count = 200, kills = isLong ? 300 : 15;
    const GitSandbox sandbox;
    // Filters and hooks that take their time, and no work of git's own behind it all.
    writeFile(sandbox.root() / "slow",
              "#!/bin/sh\ni=0; while [ $i -lt $1 ]; do i=$((i+1)); done; shift; exec \"$@\"\n");
    const auto slow = "'" + (sandbox.root() / "slow").native() + "' ";
    for (const auto& [name, value] : {std::pair("filter.slow.clean", slow + "100 cat"),
                                      {"filter.slow.smudge", slow + "100 cat"},
                                      {"core.hooksPath", (sandbox.root() / "hooks").native()},
                                      {"gc.auto", "0"}})
        sandbox.git({"config", "--global", name, value}, sandbox.root());
    for (const char* hook : {"pre-commit", "post-index-change", "post-checkout"})
        writeFile(sandbox.root() / "hooks" / hook, "#!/bin/sh\nexec " + slow + "12000 true\n");
    sh(sandbox, sandbox.root(), "chmod +x slow hooks/*; rmdir work", 0);

    std::mt19937 random(1);
    std::map<std::string, std::chrono::microseconds> length;
    int inGit = 0, unfinished = 0;
    const auto operations = operationsOn(count);
    for (int i = 0; i < kills + static_cast<int>(operations.size()) && !testing::Test::HasFailure();
         ++i) {
        const auto& operation = operations[static_cast<std::size_t>(i) % operations.size()];
        fs::remove_all(sandbox.work());
        sandbox.init({}, sandbox.work());
        sh(sandbox, sandbox.work(),
           fill +
               "git add .; git commit -qm start\necho '*[05].s filter=slow' > "
               ".git/info/attributes\n"
               "echo 'new*5 filter=slow' >> .git/info/attributes\n" +
               operation.prepare,
           count);
        const auto before = contents(sandbox, false);
        Strings command{QUENDO_PROGRAM, operation.name};
        command.insert(command.end(), operation.files.begin(), operation.files.end());
        if (operation.name == "checkin")
            command.emplace_back("--message=some");
        const auto start = std::chrono::steady_clock::now();
        RunningProcess host(command, {sandbox.work(), sandbox.environment()});
        const int handle = static_cast<int>(::syscall(SYS_pidfd_open, host.id(), 0));
        auto& whole = length[operation.name];
        if (whole.count() == 0) { // once to its end
            EXPECT_EQ(host.exitCode(), 0) << operation.name;
            whole = std::chrono::duration_cast<std::chrono::microseconds>(
                std::chrono::steady_clock::now() - start);
        } else {
            pollfd ended{handle, POLLIN, 0};
            // It only reads at first.
            const auto quarter = static_cast<unsigned long>(whole.count()) / 4;
            const auto moment = static_cast<long>(quarter + random() % (2 * quarter));
            const timespec limit{moment / 1'000'000, moment % 1'000'000 * 1'000};
            if (::ppoll(&ended, 1, &limit, nullptr) == 0)
                ++unfinished;
            else // the first one was held up by something else
                whole = std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::steady_clock::now() - start);
            // What it has started is counted, and waited for, when it can start nothing more.
            ::kill(host.id(), SIGSTOP);
            std::vector<int> started;
            for (const auto child : git::descendantsOf(host.id()))
                started.push_back(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
            inGit += !started.empty();
            ::kill(host.id(), SIGKILL);
            host.exitCode();
            for (const int child : started) {
                pollfd end{child, POLLIN, 0};
                EXPECT_EQ(child < 0 || ::poll(&end, 1, 60'000) == 1, true) << "git hangs";
                ::close(child);
            }
        }
        ::close(handle);
        const auto about = operation.name + ", kill " + std::to_string(i);
        EXPECT_EQ(sh(sandbox, sandbox.work(), "find .git -name '*.lock'", 0), "") << about;
        const auto status = sandbox.git({"status", "--porcelain", "-uall"});
        Strings lost;
        const auto after = contents(sandbox, operation.name == "revert");
        // A revert that was done has given up what it was to.
        if (operation.name != "revert" || !status.empty())
            std::ranges::set_difference(before, after, std::back_inserter(lost));
        EXPECT_THAT(lost, testing::IsEmpty()) << about << "\n" << status;
        EXPECT_EQ(sandbox.tryGit({"fsck", "--strict"}).exitCode, 0) << about;
        // The next operation finds nothing in its way.
        writeFile(sandbox.work() / "next", about);
        const auto next = sandbox.run({QUENDO_PROGRAM, "add", "next"}, sandbox.work());
        EXPECT_EQ(next.exitCode, 0) << about << next.errors;
    }
    std::printf("%d of %d kills before the end, %d while git ran\n", unfinished, kills, inGit);
    EXPECT_GE((isLong ? 2 : 5) * inGit, kills);
}

/// A small working copy in `folder`, on which each operation is tried in bad conditions.
class Trial {
public:
    explicit Trial(const GitSandbox& sandbox, fs::path folder)
        : m_sandbox(sandbox), m_folder(std::move(folder)) {}

    using Damages = std::vector<std::function<void()>>;
    /// Does each operation well first, then after each damage: whole then, or not at all.
    void run(const Damages& damages) {
        for (const auto& operation : operationsOn(count))
            run(operation, damages);
        std::printf("%d operations, %d refused\n", m_tried, m_refused);
        EXPECT_GT(m_refused, 5);
        EXPECT_LT(m_refused, m_tried);
    }

private:
    static constexpr int count = 30;

    void run(const Operation& operation, const Damages& damages) {
        prepare(operation);
        EXPECT_EQ(perform(operation), "");
        const auto wanted = outcome();
        for (std::size_t i = 0; i < damages.size() && !testing::Test::HasFailure(); ++i) {
            prepare(operation);
            damages[i]();
            const auto before = git::everything(m_sandbox, m_folder);
            const auto words = perform(operation);
            const auto about = operation.name + ", damage " + std::to_string(i) + ": " + words;
            if (words.empty()) {
                EXPECT_EQ(outcome(), wanted) << about;
            } else {
                ++m_refused;
                EXPECT_EQ(git::everything(m_sandbox, m_folder), before) << about;
                EXPECT_EQ(words.find('\n'), words.npos) << about;
            }
            ++m_tried;
        }
    }
    void prepare(const Operation& operation) const {
        // The template is made once; what was unwritable is made writable before it goes.
        sh(m_sandbox, m_sandbox.root(),
           "[ -e template ] || { mkdir template; cd template; git init -q -b main; " + fill +
               "git add .; git commit -qm start; }",
           count);
        sh(m_sandbox, m_sandbox.root(),
           "rm -f disk/fill; chmod -R u+rwx '" + m_folder.native() +
               "' 2>/dev/null || :; rm -rf '" + m_folder.native() + "'; cp -a template '" +
               m_folder.native() + "'; cd '" + m_folder.native() + "'; git status -s; " +
               operation.prepare,
           count);
    }
    std::string perform(const Operation& operation) const {
        const auto root = Path::fromNative(m_folder.native());
        std::vector<Path> files;
        for (const auto& file : operation.files)
            files.push_back(root.child(file));
        try {
            const auto adapter = git::GitAdapterFactory().createAdapter(
                root, std::make_shared<CMApplicationInteractor>());
            operation.name == "add"       ? adapter->addFiles(files)
            : operation.name == "remove"  ? adapter->removeFiles(files)
            : operation.name == "move"    ? adapter->moveFile(files.at(0), files.at(1))
            : operation.name == "checkin" ? adapter->checkin(files, u"some")
                                          : adapter->uncheckout(files);
            return "";
        } catch (const exception::SourceControlException& error) {
            return error.what();
        }
    }
    std::string outcome() const {
        return sh(m_sandbox, m_folder,
                  "git ls-files -s; git rev-parse HEAD^{tree}; find . -path ./.git -prune -o ! "
                  "-type d -print |"
                  "sort; find .git -name '*.lock'; ls -A .git/quendo 2>/dev/null || :",
                  count);
    }

    const GitSandbox& m_sandbox;
    const fs::path m_folder;
    int m_tried = 0, m_refused = 0;
};

TEST(NothingLostDeathTest, WhenTheDiskIsFull) {
    expectSuccessInOwnNamespaces([] {
        GitSandbox sandbox;
        sandbox.enterEnvironment();
        const auto disk = sandbox.root() / "disk";
        fs::create_directory(disk);
        if (::mount("none", disk.c_str(), "tmpfs", 0, "size=4m") != 0)
            skipForWantOfRights();
        Trial::Damages damages;
        for (off_t pages = 0; pages <= 64; pages += isLong || pages < 3 ? 1 : pages / 2)
            damages.push_back([file = (disk / "fill").native(), pages] {
                const int filler =
                    ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
                const std::string page(4096, 'x');
                off_t size = 0;
                while (::write(filler, page.data(), page.size()) == 4096)
                    size += 4096;
                EXPECT_EQ(::ftruncate(filler, size - pages * 4096), 0);
                ::close(filler);
            });
        Trial(sandbox, disk / "work").run(damages);
        ::umount2(disk.c_str(), MNT_DETACH);
    });
}

TEST(NothingLostDeathTest, WhenPermissionsAreMissing) {
    expectSuccessInOwnNamespaces([] {
        // Without root's powers over permissions, here and in all that is started.
        for (const int power : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER})
            ::prctl(PR_CAPBSET_DROP, power);
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        ::syscall(SYS_capset, &header, none);
        GitSandbox sandbox;
        sandbox.enterEnvironment();
        Trial::Damages damages;
        for (const char* damage :
             {"chmod a-w n", "chmod a-w .", "chmod a-w .git", "chmod a-w .git/objects",
              "chmod -R a-w .git/objects", "chmod a-w .git/index", "chmod a-w n/*",
              "chmod 0 n/15.s", "chmod 0 n", "chmod a-w .git/refs/heads", "chmod -R a-w .git/logs",
              "mkdir .git/quendo; chmod a-w .git/quendo", "chmod 0 .git/index", "chmod a-x n",
              "mkdir to; chmod a-w to"})
            damages.push_back([&, damage] { sh(sandbox, sandbox.work(), damage, 0); });
        Trial(sandbox, sandbox.work()).run(damages);
        fs::permissions(sandbox.work(), fs::perms::owner_all);
    });
}

} // namespace
} // namespace quendo::test
