// What reading states costs, beside git itself: whole processes on a fresh repository, in turns,
// so that a machine whose speed drifts slows both. Prints medians and the ratio pair by pair.
//
// quendo_benchmark_status [FILES [RUNS]]

#include "benchmarks/Measuring.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/Logging.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace quendo;
using namespace quendo::benchmark;

void makeFiles(const test::GitSandbox& sandbox, int files) {
    sandbox.init();
    constexpr int filesInFolder = 40;
    for (int i = 0; i < files; ++i) {
        const int folder = i / filesInFolder;
        test::writeFile(sandbox.work() / "src" / ("module_" + std::to_string(folder / 20)) /
                            ("package_" + std::to_string(folder % 20)) /
                            ("component_file_" + std::to_string(i) + ".cpp"),
                        "int value_" + std::to_string(i) + ";\n");
    }
    sandbox.commitAll("files");
    // An index as new as its files makes git read every one of them again: date the files back.
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sandbox.work() / "src"))
        if (entry.is_regular_file())
            std::filesystem::last_write_time(entry, std::filesystem::file_time_type::clock::now() -
                                                        std::chrono::hours(1));
    sandbox.git({"update-index", "--really-refresh"});
    test::writeFile(sandbox.work() / "src/module_0/package_0/component_file_0.cpp", "changed\n");
}

void comparePrograms(const test::GitSandbox& sandbox, int runs) {
    const auto timed = [&](const std::vector<std::string>& command) {
        return millisecondsOfProgram(sandbox, command);
    };
    const std::vector<std::string> ours{QUENDO_PROGRAM, "status"}, theirs{"git", "status", "-uall"};
    timed(ours);
    timed(theirs);
    std::vector<double> ourTimes, theirTimes, ratios;
    for (int run = 0; run < runs; ++run) {
        ourTimes.push_back(timed(ours));
        theirTimes.push_back(timed(theirs));
        ratios.push_back(ourTimes.back() / theirTimes.back());
    }
    std::printf("quendo status        %8.1f ms\n"
                "git status -uall     %8.1f ms\n"
                "ratio, pair by pair  %8.2f (%.2f to %.2f)\n",
                median(ourTimes), median(theirTimes), median(ratios),
                *std::ranges::min_element(ratios), *std::ranges::max_element(ratios));
}

void measureOpening(const test::GitSandbox& sandbox) {
    git::GitAdapterFactory factory;
    const auto folder = Path::fromNative(sandbox.work().native());
    const auto interactor = std::make_shared<CMApplicationInteractor>();
    std::vector<double> times;
    for (int i = 0; i < 1000; ++i)
        times.push_back(
            millisecondsOf([&] { factory.createAdapter(folder, interactor)->getRootFolder(); }));
    const double first = times.front();
    std::ranges::sort(times);
    std::vector<double> git;
    for (int i = 0; i < 50; ++i)
        git.push_back(millisecondsOfProgram(sandbox, {"git", "rev-parse", "--show-toplevel"}));
    std::printf("createAdapter and getRootFolder  %.3f ms (first %.3f, 99th percentile %.3f)\n"
                "git rev-parse --show-toplevel    %.3f ms\n",
                times[500], first, times[990], median(git));
}

void measureUntakenRecords() {
    constexpr int records = 1'000'000;
    QUENDO_LOG(Severity::Detail) << "first";
    const double time = millisecondsOf([] {
        for (int i = 0; i < records; ++i)
            QUENDO_LOG(Severity::Detail) << "record " << i;
    });
    std::printf("a log record that nobody takes   %.0f ns\n", time * 1e6 / records);
}

} // namespace

int main(int argc, char** argv) {
    const int files = argc > 1 ? std::atoi(argv[1]) : 100'000;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 9;
    if (files < 1 || runs < 1) {
        std::fprintf(stderr, "usage: quendo_benchmark_status [FILES [RUNS]]\n");
        return 2;
    }
    test::GitSandbox sandbox;
    sandbox.enterEnvironment();
    makeFiles(sandbox, files);
    std::printf("%d files, %d pairs of runs\n", files, runs);
    comparePrograms(sandbox, runs);
    measureOpening(sandbox);
    measureUntakenRecords();
    return 0;
}
