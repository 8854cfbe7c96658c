#include "host/CommandLine.h"
#include "host/ActionCommands.h"
#include "host/CheckinCommands.h"
#include "host/CompletionCommand.h"
#include "host/ExportCommand.h"
#include "host/HelpCommand.h"
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
        EXPECT_EQ(parseStatus({path, "x"}).paths, (std::vector<std::string>{path, "x"}));
    EXPECT_EQ(parseStatus({"--", "--json"}).paths, std::vector<std::string>{"--json"});
    EXPECT_EQ(parseStatus({}).paths, std::vector<std::string>{"."});
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
    EXPECT_EQ(parse({"-C", "[a]", "-C", "status", "status", "b"}).folders,
              (std::vector<std::string>{"[a]", "status"}));
    EXPECT_EQ(parse({"status"}).colours, Colours::Auto);
    EXPECT_EQ(parse({"--color=never", "status"}).colours, Colours::Never);
    EXPECT_EQ(parse({"status", "--color", "always", "f"}).colours, Colours::Always);
    const auto checkin = parseAs<CheckinCommand>({"checkin", "a", "-m", "[x]", "b"});
    EXPECT_EQ(checkin.message, "[x]");
    EXPECT_EQ(checkin.paths, (std::vector<std::string>{"a", "b"}));
}

TEST(CommandLine, RefusesWrongUsageInOneLineThatNamesTheHelp) {
    const std::pair<std::string, std::vector<std::vector<const char*>>> rows[] = {
        {"", {{}, {"stauts"}, {"--nope"}, {"-C"}, {"-C", "x"}}},
        {" status",
         {{"--nope"}, {"--json", "--porcelain"}, {"-z"}, {"--log", "loud"}, {"-C", "x"}}},
        {" status", {{"--color", "red"}, {"--branch"}, {"--branch", "--porcelain"}}},
        {" log", {{"f", "g"}, {"f", "-n", "0"}, {"f", "-n", "-1"}, {"f", "-n", "x"}}},
        {" log", {{"-n", "99999999999999999999", "f"}}},
        {" export", {{"f", "r"}, {"--json", "f", "r", "-"}}},
        {" completion", {{"tcsh"}}},
        {" help", {{"stauts"}, {"a", "b"}}},
        {" watch", {{"a", "b"}, {"--porcelain"}, {"--branch"}}},
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
}

TEST(CommandLine, SuggestsWhatMayHaveBeenMeant) {
    for (const auto& [words, told] : std::vector<std::pair<std::vector<const char*>, std::string>>{
             {{"stauts"}, "stauts is not a command (did you mean status?); "},
             {{"stat"}, "stat is not a command (did you mean status?); "},
             {{"commit", "f"}, "commit is not a command (did you mean checkin?); "},
             {{"x\n"}, "$'x\\n' is not a command; "},
             {{"help", "rmove"}, "rmove is not a command (did you mean remove?); "},
             {{"--vresion"},
              "--vresion is not an option of the program (did you mean --version?); "},
             {{"--json", "status"},
              "--json is not an option of the program; an option of a command "},
             {{"status", "--porclain=1"},
              "--porclain is not an option of status (did you mean --porcelain?); "},
             {{"log", "f", "-C", "x"}, "-C is not an option of log; it goes before the command; "},
             {{"discard", "a", "status"}, "status is one argument too many; "}})
        EXPECT_THAT([&] { parse(words); },
                    testing::ThrowsMessage<UsageError>(testing::StartsWith(told)));
}

TEST(CommandLine, HelpOfACommandIsThatOfItsOption) {
    const auto help = [](const char* topic) { return parseAs<HelpCommand>({"help", topic}).text; };
    EXPECT_EQ(help("status"), parse({"status", "--help"}).notice);
    EXPECT_EQ(help(""), parse({"--help"}).notice);
    EXPECT_THAT(help("help"), testing::HasSubstr("Usage: quendo help "));
}

TEST(Completion, BashCompletesCommandsAndOptions) {
    const auto script = parseAs<CompletionCommand>({"completion", "bash"}).script + R"(
        for words in 'ch' 'remove --d' 'st' 'status --po' '--log notice -C x log --js' \
            'status --log d' 'completion f' '--color n' 'help lo'; do
            COMP_WORDS=(quendo $words); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
            _quendo; echo -n "${COMPREPLY[*]} "
        done)";
    const auto result = test::runProcess({"bash", "-euc", script}, {});
    EXPECT_EQ(result.output,
              "checkin --dry-run status --porcelain --json detail fish never lock log ")
        << result.errors;
}

} // namespace
} // namespace quendo::host
