#include "quendo/adapter/CredentialProvider.h"
#include "quendo/git/CredentialServer.h"
#include "quendo/git/SmallFile.h"
#include "tests/git/Copy.h"
#include "tests/support/GitServer.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendo::git {
namespace {

const std::string password = "Ge/heim#" + std::to_string(::getpid()) + "@x";
const std::string inAddress = "Ge%2Fheim%23" + std::to_string(::getpid()) + "%40x";

class Provider : public CredentialProvider {
public:
    using Answer = std::function<std::optional<Credentials>()>;
    explicit Provider(Answer answer) : m_answer(std::move(answer)) {}

    std::optional<Credentials> getCredentials(const CredentialRequest& request) override {
        asked.push_back(request);
        thread = std::this_thread::get_id();
        return m_answer();
    }

    std::vector<CredentialRequest> asked;
    std::thread::id thread; ///< of the last one who asked

private:
    const Answer m_answer;
};

std::shared_ptr<Provider> giving(std::optional<Credentials> given) {
    return std::make_shared<Provider>([given] { return given; });
}

std::shared_ptr<Provider> givingWhatIsRight() {
    return giving(Credentials{u"ada", toUString(password)});
}

/// Where the helper that this text names finds the server.
fs::path socketIn(const std::string& text) {
    const auto start = text.find("--socket '") + 10;
    return text.substr(start, text.find('\'', start) - start);
}

bool isSecret(const std::string& text) {
    return text.find(password) != std::string::npos || text.find(inAddress) != std::string::npos;
}

/// What holds the password: arguments and environments of all processes.
std::vector<std::string> leaksInProcesses() {
    std::vector<std::string> leaks;
    std::error_code gone;
    for (const auto& entry : fs::directory_iterator("/proc", gone))
        for (const char* name : {"cmdline", "environ"}) {
            // Nothing of a process that has ended meanwhile.
            const auto text = readSmallFile(entry.path() / name, 8U << 20U);
            if (text && isSecret(*text))
                leaks.push_back(entry.path() / name);
        }
    return leaks;
}

/// A clone that has the commit and none of the files' contents, of a server that wants a password.
class Clone {
public:
    explicit Clone(const std::string& user = "")
        : m_server(m_served.path(), "ada", password,
                   [this] {
                       const auto found = leaksInProcesses();
                       const std::lock_guard lock(m_lock);
                       m_leaks.insert(m_leaks.end(), found.begin(), found.end());
                   }),
          copy({.lockLimit = std::chrono::milliseconds(50)}, script(user)) {
        leaks(); // git clone was given it in an argument
    }

    const std::string& host() const { return m_server.host(); }
    int asked() const { return m_server.asked(); }

    /// While git waited for the server; since the last call.
    std::vector<std::string> leaks() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_leaks, {});
    }

private:
    std::mutex m_lock;
    std::vector<std::string> m_leaks;
    const test::TemporaryFolder m_served;
    test::GitServer m_server;

    std::string script(const std::string& user) const {
        const auto bare = m_served.path().native() + "/r.git";
        return "mkdir ../first; (cd ../first; " + std::string(Copy::usual) +
               "); git clone -q --bare ../first " + bare + "; rm -r ../first\ngit -C " + bare +
               " config uploadpack.allowFilter true; git clone -q --filter=blob:none --no-checkout "
               "http://ada:" +
               inAddress + "@" + m_server.host() +
               "/r.git . 2>&1; git read-tree HEAD; git remote set-url origin http://" + user +
               m_server.host() + "/r.git";
    }

public:
    Copy copy;
};

TEST(CredentialsTest, AreAskedForOnceAndStandNowhere) {
    for (const std::string user : {"", "ada@"}) {
        test::LogCapture log;
        Clone clone(user);
        Copy& copy = clone.copy;
        // It fetches for itself, and shows what it can see.
        copy.sh("cat > .git/hooks/post-checkout <<'EOF'\n#!/bin/sh\ngit cat-file -p HEAD:b >&2\n"
                "(env; ls -l /proc/self/fd; cat /proc/$PPID/cmdline) > ../seen\nEOF\n"
                "chmod +x .git/hooks/post-checkout");
        std::vector<std::string> told;
        copy.onProgress([&](const UString& message) { told.push_back(toUtf8(message)); });
        const auto provider = givingWhatIsRight();
        copy.adapter().setCredentialProvider(provider);
        const auto before = clone.asked();
        EXPECT_NO_THROW(revert({"a", "n/x"})(copy));
        EXPECT_GT(clone.asked(), before + 3);
        EXPECT_EQ(copy.status(), " D .gitignore\n D b\n D c\n D d\n D n/y\n");
        ASSERT_EQ(provider->asked.size(), 1U);
        EXPECT_EQ(provider->asked[0].url, toUString("http://" + clone.host()));
        EXPECT_EQ(provider->asked[0].userName, user.empty() ? u"" : u"ada");
        EXPECT_EQ(provider->thread, std::this_thread::get_id());
        EXPECT_EQ(std::ranges::count(told, "b"), 1) << "the hook has fetched";

        EXPECT_EQ(clone.leaks(), std::vector<std::string>());
        EXPECT_TRUE(std::ranges::none_of(log.records(), isSecret, &test::CapturedRecord::message));
        EXPECT_TRUE(std::ranges::none_of(told, isSecret));
        for (const auto& entry : fs::recursive_directory_iterator(copy.sandbox().root()))
            EXPECT_FALSE(entry.is_regular_file() && isSecret(test::readFile(entry.path())))
                << entry.path();
        // The socket has gone.
        const auto socket = socketIn(test::readFile(copy.sandbox().root() / "seen"));
        EXPECT_TRUE(socket.is_absolute());
        EXPECT_FALSE(fs::exists(socket.parent_path())) << socket;
    }
}

TEST(CredentialsTest, AnswersThatDoNotHelpAreSaidAndChangeNothing) {
    struct Case {
        std::shared_ptr<Provider> provider;
        bool isKept;
        std::string words;
    };
    const auto failing = std::make_shared<Provider>(
        []() -> std::optional<Credentials> { throw std::runtime_error("it is " + password); });
    const auto secret = toUString(password);
    const std::string nobody = "set up a credential helper", none = "no credentials were given";
    Case cases[] = {
        {giving(Credentials{u"ada", u"wrong-4711"}), true, "refused"},
        {nullptr, true, nobody},
        {giving({}), false, nobody},
        {giving({}), true, none},
        {failing, true, none},
        {giving(Credentials{u"ada", secret + u"\nx=y"}), true, none},
        {giving(Credentials{UString(u"a\0da", 4), secret}), true, none},
    };
    Clone clone;
    test::LogCapture log;
    for (auto& one : cases) {
        clone.copy.adapter().setCredentialProvider(one.provider);
        if (!one.isKept)
            one.provider.reset();
        const auto words = clone.copy.refusal(revert({"a", "n/x"}));
        EXPECT_NE(words.find(one.words), std::string::npos) << words;
        EXPECT_NE(words.find("http://" + clone.host()), std::string::npos) << words;
        EXPECT_FALSE(isSecret(words) || words.find("4711") != std::string::npos) << words;
        EXPECT_TRUE(!one.provider || one.provider->asked.size() == 1) << words;
    }
    EXPECT_EQ(clone.leaks(), std::vector<std::string>());
    EXPECT_TRUE(std::ranges::none_of(log.records(), isSecret, &test::CapturedRecord::message));
    // A wrong password in the remote's address itself.
    clone.copy.sh("git remote set-url origin http://ada:wrong-4711@" + clone.host() + "/r.git");
    const auto words = clone.copy.refusal(revert({"a"}));
    EXPECT_NE(words.find("refused the credentials"), std::string::npos) << words;
    EXPECT_EQ(words.find("4711"), std::string::npos) << words;
}

TEST(CredentialsTest, AreAskedForWhenAnExportFetches) {
    Clone clone;
    auto& adapter = clone.copy.adapter();
    clone.copy.sh("git config credential.helper '!touch ../canary; false'"); // not the user's
    const auto exportOf = [&](const char* name) {
        const auto file = clone.copy.at(name);
        adapter.exportRevision(file, *adapter.findRevision(file, u"HEAD"),
                               clone.copy.at(std::string(name) + ".out"));
    };
    for (const auto& provider : {giving({}), std::shared_ptr<Provider>()}) {
        adapter.setCredentialProvider(provider);
        EXPECT_THAT([&] { exportOf("a"); },
                    testing::ThrowsMessage<exception::SourceControlException>(testing::AllOf(
                        HasSubstr(provider ? "no credentials were given" : "Username"),
                        HasSubstr("http://" + clone.host()))));
    }
    const auto provider = givingWhatIsRight();
    adapter.setCredentialProvider(provider);
    EXPECT_NO_THROW(exportOf("a"));
    EXPECT_EQ(provider->asked.size(), 1U);
    EXPECT_EQ(clone.leaks(), std::vector<std::string>());
    clone.copy.sh("cmp a.out - <<E\na\nE\ntest ! -e ../canary; ! git cat-file -p HEAD:b 2>&1\n"
                  "test -e ../canary");
}

TEST(CredentialsTest, TheUsersOwnHelperComesFirst) {
    Clone clone;
    clone.copy.sh(
        "git config --global credential.helper '!f() { echo username=ada; echo password=" +
        password + "; }; f'");
    const auto provider = givingWhatIsRight();
    clone.copy.adapter().setCredentialProvider(provider);
    EXPECT_NO_THROW(revert({"a"})(clone.copy));
    EXPECT_TRUE(provider->asked.empty());
}

TEST(CredentialsTest, NobodyElseCanAsk) {
    CredentialServer server(givingWhatIsRight());
    const auto socket = socketIn(server.settings().at(0).value);
    struct stat status {};
    ASSERT_EQ(::stat(socket.parent_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_EQ(status.st_uid, ::geteuid());
    if (::geteuid() != 0)
        GTEST_SKIP() << "SKIPPED: only root can become another user";
    // Even when the folder is open.
    ASSERT_EQ(::chmod(socket.parent_path().c_str(), 0777), 0);
    ASSERT_EQ(::chmod(socket.c_str(), 0777), 0);
    for (const bool isOther : {true, false}) {
        auto answer = test::onThread([&] {
            std::vector<std::string> command{"git", "credential-cache", "--socket", socket, "get"};
            if (isOther)
                command.insert(command.begin(), {"setpriv", "--reuid=65534", "--clear-groups"});
            return test::runProcess(command,
                                    {.workingFolder = "/", .environment = {{"HOME", "/"}}});
        });
        pollfd asked{server.descriptor(), POLLIN, 0};
        ASSERT_EQ(::poll(&asked, 1, 60'000), 1);
        server.serve();
        EXPECT_EQ(isSecret(test::within(std::move(answer)).output), !isOther);
    }
}

} // namespace
} // namespace quendo::git
