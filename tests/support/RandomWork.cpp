#include "tests/support/RandomWork.h"

#include <algorithm>

namespace quendo::test {
namespace {

constexpr const char* unpack = "[ -e ../tree.tar ] || (mkdir ../t; cd ../t; for d in $(seq 50); do "
                               "mkdir $d; (cd $d; touch $(seq 100)); done; tar cf ../tree.tar .); "
                               "mkdir -p 'X' && tar xf ../tree.tar -C 'X'";

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
    for (; count > 0; --count) {
        const std::string one = names[below(6)], other = names[below(6)];
        // A tree of 5,000 files now and then.
        std::string action = below(200) == 0 ? unpack : actions[below(std::size(actions))];
        for (const auto& [letter, name] : {std::pair("X", one), std::pair("Y", other)})
            for (auto at = action.find(letter); at != action.npos;
                 at = action.find(letter, at + name.size()))
                action.replace(at, 1, name);
        script += "{ " + action + "; } >/dev/null 2>&1 </dev/null || :\n";
    }
    m_sandbox.run({"sh", "-c", script}, m_sandbox.work(), {{"GIT_EDITOR", "true"}});
    return script;
}

bool isWithoutFiles(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::error_code gone, unseen;
    const fs::recursive_directory_iterator entries(
        folder, fs::directory_options::skip_permission_denied, gone);
    return !gone && std::ranges::all_of(entries, [&](const auto& entry) {
        const auto status = entry.symlink_status(unseen);
        return unseen || fs::is_directory(status);
    });
}

} // namespace quendo::test
