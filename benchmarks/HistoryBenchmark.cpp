// What the first revisions of a long history cost, beside git itself, in turns. Prints medians.
//
// quendo_benchmark_history [COMMITS [RUNS]]

#include "benchmarks/Measuring.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/adapter/RevisionHistory.h"
#include "quendo/git/GitAdapterFactory.h"

#include <any>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace quendo;
using namespace quendo::benchmark;

void makeHistory(const test::GitSandbox& sandbox, int commits) {
    sandbox.init();
    std::string input;
    for (int i = 1; i <= commits; ++i) {
        const auto number = std::to_string(i);
        const auto text = "change " + number + "\n";
        const auto data = "data " + std::to_string(text.size()) + "\n" + text;
        input += "commit refs/heads/main\ncommitter A <a@example.org> " +
                 std::to_string(1'500'000'000 + i) + " +0000\n" + data + "M 100644 inline folder_" +
                 std::to_string(i % 40) + "/file_" + std::to_string(i % 400) + "\n" + data;
    }
    test::writeFile(sandbox.root() / "history", input);
    sandbox.run({"sh", "-c", "git fast-import --quiet < ../history && git reset -q --hard"},
                sandbox.work());
}

} // namespace

int main(int argc, char** argv) {
    const int commits = argc > 1 ? std::atoi(argv[1]) : 60'000;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 31;
    if (commits < 1 || runs < 1) {
        std::fprintf(stderr, "usage: quendo_benchmark_history [COMMITS [RUNS]]\n");
        return 2;
    }
    test::GitSandbox sandbox;
    sandbox.enterEnvironment();
    makeHistory(sandbox, commits);
    const auto root = Path::fromNative(sandbox.work().native());
    const auto adapter =
        git::GitAdapterFactory().createAdapter(root, std::make_shared<CMApplicationInteractor>());
    auto* const history =
        std::any_cast<RevisionHistory*>(adapter->getSubsystem(typeid(RevisionHistory)));
    std::printf("the first 10 of %d commits, %d runs each, in ms\n", commits, runs);
    for (const std::string name : {"", "folder_1", "folder_1/file_1"}) {
        std::vector<double> git, library, program;
        std::size_t found = 0;
        const auto timed = [&](std::vector<std::string> command) {
            if (!name.empty())
                command.push_back(name);
            return millisecondsOfProgram(sandbox, command);
        };
        for (int run = 0; run < runs; ++run) {
            git.push_back(timed({"git", "log", "-n", "10"}));
            library.push_back(millisecondsOf([&] {
                history->readRevisions(name.empty() ? root : root.child(name), {.limit = 10},
                                       [&](auto) { return ++found > 0; });
            }));
            program.push_back(timed({QUENDO_PROGRAM, "log", "-n", "10"}));
        }
        std::printf("%-16s git log %6.1f   readRevisions %6.1f   quendo log %6.1f   (%zu found)\n",
                    name.empty() ? "(all)" : name.c_str(), median(git), median(library),
                    median(program), found / static_cast<std::size_t>(runs));
    }
    return 0;
}
