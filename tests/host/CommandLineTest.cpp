#include "host/CommandLine.h"
#include "host/ActionCommands.h"
#include "host/CheckinCommands.h"
#include "host/CompletionCommand.h"
#include "host/ExportCommand.h"
#include "host/StatusCommand.h"
#include "tests/support/Process.h"
#include "tests/support/Testing.h"

namespace quendo::host {
namespace {

Invocation parse(std::vector<const char*> words) {
    words.insert(words.begin(), "quendo");
    return parseCommandLine(static_cast<int>(words.size()), words.data());
}

template <class Chosen>
Chosen parseAs(const std::vector<const char*>& words) {
    return dynamic_cast<const Chosen&>(*parse(words).command);
}

StatusCommand parseStatus(std::vector<const char*> words) {
    words.insert(words.begin(), "status");
    return parseAs<StatusCommand>(words);
}

TEST(CommandLine, TakesPathsAsTheyAre) {
    for (const char* path :
         {"", "a b", "\xff\xfe", "log", "status", "[a,b]", "{x}", "a=b", "%%", "~"})
        EXPECT_EQ(parseStatus({path}).folder, path);
    EXPECT_EQ(parseStatus({"--", "--json"}).folder, "--json");
    EXPECT_EQ(parseStatus({}).folder, ".");
    const auto exported = parseAs<ExportCommand>({"export", "a", "log", "c"});
    EXPECT_EQ(exported.file + exported.revision + exported.target, "alogc");
    const std::vector<const char*> awkward = {"add", "--",    "[a,b]", "[]",  "{}",  "%%",
                                              "",    "--log", "-x",    "a,b", "\xff"};
    EXPECT_EQ(parseAs<AddCommand>(awkward).paths,
              std::vector<std::string>(awkward.begin() + 2, awkward.end()));
}

TEST(CommandLine, TakesOptionsAnywhere) {
    EXPECT_EQ(parse({"--log", "notice", "status"}).logLevel, platform::Severity::Notice);
    EXPECT_EQ(parse({"log", "--log=detail", "f"}).logLevel, platform::Severity::Detail);
    EXPECT_EQ(parse({"status"}).logLevel, std::nullopt);
    const auto checkin = parseAs<CheckinCommand>({"checkin", "a", "-m", "[x]", "b"});
    EXPECT_EQ(checkin.message, "[x]");
    EXPECT_EQ(checkin.paths, (std::vector<std::string>{"a", "b"}));
}

TEST(CommandLine, RefusesWrongUsageInOneLineThatNamesTheHelp) {
    const std::pair<std::string, std::vector<std::vector<const char*>>> rows[] = {
        {"", {{}, {"stauts"}, {"--nope"}}},
        {" status", {{"--nope"}, {"a", "b"}, {"--json", "--porcelain"}, {"-z"}, {"--log", "loud"}}},
        {" log", {{}, {"f", "-n", "0"}, {"f", "-n", "-1"}, {"f", "-n", "x"}}},
        {" log", {{"-n", "99999999999999999999", "f"}}},
        {" export", {{"f", "r"}}},
        {" completion", {{"tcsh"}}},
        {" watch", {{"a", "b"}, {"--porcelain"}}},
        {" add", {{}, {"--all", "f"}}},
        {" remove", {{}, {"--nope", "f"}}},
        {" move", {{}, {"a"}, {"a", "b", "c"}}},
        {" checkin", {{"f"}, {"-m", "m"}, {"f", "-m"}, {"-m", "m", "-F", "f", "f"}}},
        {" checkin", {{"-m", "a", "-m", "b", "f"}}},
        {" revert", {{}}},
        {" discard", {{"a", "b"}}},
        {" resolve", {{}, {"--dry-run", "f"}}},
        {" lock", {{}}},
        {" untracked", {{"a", "b"}, {"--json", "-z"}}},
        {" clients", {{"--json"}}},
    };
    for (const auto& [command, cases] : rows)
        for (auto words : cases) {
            if (!command.empty())
                words.insert(words.begin(), &command[1]);
            try {
                parse(words);
                ADD_FAILURE() << testing::PrintToString(words) << " was taken";
            } catch (const UsageError& error) {
                const std::string message = error.what();
                EXPECT_TRUE(message.ends_with("see quendo" + command + " --help")) << message;
                EXPECT_EQ(message.find('\n'), std::string::npos) << message;
            }
        }
    EXPECT_THAT([] { parse({"stauts"}); },
                testing::ThrowsMessage<UsageError>("stauts is no command; see quendo --help"));
}

TEST(Completion, BashCompletesCommandsAndOptions) {
    const auto script = parseAs<CompletionCommand>({"completion", "bash"}).script + R"(
        for words in 'ch' 'remove --d' 'st' 'status --po' '--log notice log --js' 'status --log d' 'completion f'; do
            COMP_WORDS=(quendo $words); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
            _quendo; echo -n "${COMPREPLY[*]} "
        done)";
    const auto result = test::runProcess({"bash", "-euc", script}, {});
    EXPECT_EQ(result.output, "checkin --dry-run status --porcelain --json detail fish ")
        << result.errors;
}

} // namespace
} // namespace quendo::host
