#include "tests/support/RandomWork.h"

#include <algorithm>

namespace quendo::test {
namespace {

constexpr const char* unpack = "[ -e ../tree.tar ] || (mkdir ../t; cd ../t; for d in $(seq 50); do "
                               "mkdir $d; (cd $d; touch $(seq 100)); done; tar cf ../tree.tar .); "
                               "mkdir -p 'X' && tar xf ../tree.tar -C 'X'";

constexpr const char* nestedActions[] = {
    "git init -q 'X'",
    "rm -rf 'X/.git'",
    "rm -f 'X/.git/HEAD'",
    "git clone -q ../lib 'X'",
    "git submodule -q add -f ../lib 'X'",
    "rm -rf 'X'; git submodule -q add -f ../lib 'X'",
    "git submodule -q deinit -f 'X'",
    "git submodule -q update --init --recursive",
    "git mv 'X' 'Y'",
    "git rm -rfq 'X'",
    "echo 2 >> 'X/l'",
    "echo 2 >> 'X/d/f'",
    "cd 'X' && git add -A",
    "cd 'X' && git commit -qam x",
    "cd 'X' && git commit -qm x --allow-empty",
    "cd 'X' && git checkout -qf HEAD~1",
    "cd 'X' && git checkout -qf main",
    "cd 'X' && git stash -q",
    "mkdir -p 'X/o/p'; touch 'X/o/p/q' 'X/n'",
    "printf 'e/\\n' > 'X/.gitignore'",
    "printf 'n\\no/\\n' > 'X/.gitignore'",
    "git worktree add -q -f -B w 'X'",
    "git worktree remove -f -f 'X'",
    "git init -q --separate-git-dir=\"$PWD/../meta\"",
    "[ -f .git ] && [ -d ../meta ] && rm .git && mv ../meta .git",
    "cd 'X' && [ -d .git ] && mv .git ../sub.git && echo 'gitdir: ../sub.git' > .git",
    "mkfifo 'X/pipe'",
    "mv 'X/.git' ../aside",
    "mv ../aside 'X/.git'",
    "git config core.excludesFile rules",
    "printf '*.log\\n' > rules",
    "printf 'e/\\nl\\n' > rules",
    "rm -f rules",
    "git config include.path ../more",
    "printf '[core]\\n\\texcludesFile = rules\\n' > more",
    "git config --unset core.excludesFile; rm -f more",
    "git config submodule.X.ignore all",
    "git config submodule.X.ignore dirty",
    "git config submodule.X.ignore none",
    "git config --unset submodule.X.ignore"};

constexpr const char* makeLibrary =
    "[ -e ../lib ] || (git init -q -b main ../lib; cd ../lib; mkdir d; touch l d/f; git add .; "
    "git commit -qm 1; git submodule -q add ./. in; git commit -qm 2);\n";

} // namespace

RandomWork::~RandomWork() {
    m_sandbox.run({"chmod", "-R", "u+rwx", "."}, m_sandbox.work());
}

std::string RandomWork::act(unsigned count) {
    static constexpr const char* names[] = {"a", "b.log", "c d", "e/f", "e/g/h", "i/j/k"};
    static constexpr const char* actions[] = {"parent 'X'; echo $RANDOM >> 'X'",
                                              "parent 'X'; echo same > 'X'",
                                              "rm -rf 'X'",
                                              "mv 'X' 'Y'",
                                              "mkdir -p 'X/new/deep'; touch 'X/new/deep/file'",
                                              "mkdir -p 'X'",
                                              "touch 'X/late'",
                                              "rm -rf ../out; mv 'X' ../out",
                                              "mv ../out 'Y'",
                                              "parent 'X'; rm -rf 'X'; ln -s a 'X'",
                                              "chmod +x 'X'",
                                              "chmod -x 'X'",
                                              "chmod 0 'X'",
                                              "chmod 700 e e/g i i/j 'X'",
                                              "git add -A",
                                              "git add 'X'",
                                              "git rm -rq --cached 'X'",
                                              "git commit -qm x",
                                              "git stash -q",
                                              "git stash pop -q",
                                              "git checkout -qB side",
                                              "git checkout -q main",
                                              "git checkout -q side",
                                              "git merge -q side",
                                              "git rebase -q main",
                                              "git rebase --abort || git merge --abort",
                                              "git reset -q --hard",
                                              "printf '*.log\n' > .gitignore",
                                              "rm -f .gitignore",
                                              "printf 'e/\n' > .gitignore",
                                              "cp 'X' t; mv t 'Y'"};
    std::string script = "parent() { d=${1%/*}; [ \"$d\" = \"$1\" ] || mkdir -p \"$d\"; }\n";
    if (m_hasNested)
        script += makeLibrary;
    for (; count > 0; --count) {
        const std::string one = names[below(6)], other = names[below(6)];
        // A tree of 5,000 files now and then.
        std::string action = below(200) == 0 ? unpack
                             : m_hasNested && below(5) < 3
                                 ? nestedActions[below(std::size(nestedActions))]
                                 : actions[below(std::size(actions))];
        for (const auto& [letter, name] : {std::pair("X", one), std::pair("Y", other)})
            for (auto at = action.find(letter); at != action.npos;
                 at = action.find(letter, at + name.size()))
                action.replace(at, 1, name);
        script += "( " + action + " ) >/dev/null 2>&1 </dev/null || :\n";
    }
    m_sandbox.run({"sh", "-c", script}, m_sandbox.work(),
                  {{"GIT_EDITOR", "true"},
                   {"GIT_CONFIG_COUNT", "1"},
                   {"GIT_CONFIG_KEY_0", "protocol.file.allow"},
                   {"GIT_CONFIG_VALUE_0", "always"}});
    return script;
}

bool isWithoutFiles(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::error_code gone, unseen;
    const fs::recursive_directory_iterator entries(
        folder, fs::directory_options::skip_permission_denied, gone);
    return !gone && std::ranges::all_of(entries, [&](const auto& entry) {
        const auto status = entry.symlink_status(unseen);
        return unseen || !(fs::is_regular_file(status) || fs::is_symlink(status)) ||
               std::ranges::find(entry.path(), ".git") != entry.path().end();
    });
}

} // namespace quendo::test
