#include "quendo/git/CredentialServer.h"

#include "quendo/platform/Logging.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace quendo::git {
namespace {

constexpr std::size_t longestQuestion = 64U << 10U;
constexpr std::chrono::milliseconds questionLimit{5'000};

bool fits(const std::string& folder) {
    constexpr std::size_t forTheRest = sizeof "/quendo-XXXXXX/credentials";
    return !folder.empty() && folder.front() == '/' &&
           folder.size() + forTheRest < sizeof(sockaddr_un::sun_path) &&
           folder.find_first_of("'\\") == std::string::npos;
}

std::string makePrivateFolder() {
    for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR", ""}) {
        const char* value = *variable != '\0' ? std::getenv(variable) : "/tmp";
        if (value == nullptr || !fits(value))
            continue;
        std::string name = std::string(value) + "/quendo-XXXXXX";
        if (::mkdtemp(name.data()) != nullptr)
            return name;
    }
    throw std::system_error(errno, std::generic_category(),
                            "no folder for asking for credentials can be made");
}

// Until the other side has said everything; nothing when it takes too long.
std::optional<std::string> readQuestion(int socket) {
    const auto deadline = std::chrono::steady_clock::now() + questionLimit;
    std::string question;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd polled{socket, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&polled, 1, static_cast<int>(left.count())) == 0)
            return std::nullopt;
        std::array<char, 4096> buffer;
        const auto count = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count == 0)
            return question;
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return std::nullopt;
        question.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (question.size() > longestQuestion)
            return std::nullopt;
    }
}

bool isSaid(const UString& text) {
    // The protocol is lines.
    return text.find_first_of(std::u16string_view(u"\0\n", 2)) == UString::npos;
}

} // namespace

CredentialServer::CredentialServer(std::shared_ptr<CredentialProvider> provider)
    : m_provider(std::move(provider)), m_folder(makePrivateFolder()),
      m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto name = m_folder + "/credentials";
    std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
    if (!m_socket ||
        ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_socket.get(), 8) != 0) {
        const int error = errno;
        ::rmdir(m_folder.c_str());
        throw std::system_error(error, std::generic_category(), "no socket for credentials");
    }
}

CredentialServer::~CredentialServer() {
    ::unlink((m_folder + "/credentials").c_str());
    ::rmdir(m_folder.c_str());
}

std::vector<ConfigOverride> CredentialServer::settings() const {
    // git's own client for a socket; it is to ask only: what it is told to store belongs nowhere
    // here, and it would start a server of its own for that.
    return {{"credential.helper", "!f() { test \"$1\" = get && git credential-cache --socket '" +
                                      m_folder + "/credentials' get; }; f"}};
}

void CredentialServer::serve() noexcept {
    try {
        const FileDescriptor socket(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ucred peer{};
        socklen_t size = sizeof peer;
        if (!socket || ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
            peer.uid != ::geteuid())
            return;
        if (const auto question = readQuestion(socket.get())) {
            const auto text = answer(*question);
            ::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    } catch (...) {
        QUENDO_LOG_CAUGHT_EXCEPTION();
    }
}

std::string CredentialServer::answer(std::string_view question) {
    std::map<std::string, std::string, std::less<>> fields;
    while (!question.empty()) {
        const auto end = std::min(question.find('\n'), question.size());
        const auto line = question.substr(0, end);
        question.remove_prefix(std::min(end + 1, question.size()));
        if (const auto equals = line.find('='); equals != std::string_view::npos)
            fields.insert_or_assign(std::string(line.substr(0, equals)),
                                    std::string(line.substr(equals + 1)));
    }
    auto url = fields["protocol"] + "://" + fields["host"];
    if (!fields["path"].empty())
        url += "/" + fields["path"];
    const auto user = fields["username"];
    const auto key = std::pair(url, user);
    auto given = m_given.find(key);
    if (given == m_given.end()) {
        m_declined = url;
        std::optional<Credentials> credentials;
        try {
            credentials = m_provider->getCredentials({toUString(url), toUString(user), 0});
        } catch (...) {
            // Its text is the host's, and may hold what no log is to hold.
            QUENDO_LOG(Severity::CaughtException) << "The credential provider threw an exception";
        }
        if (!credentials || !isSaid(credentials->userName) || !isSaid(credentials->password))
            return "quit=1\n";
        m_declined.reset();
        given = m_given.emplace(key, std::move(*credentials)).first;
    }
    return "username=" + toUtf8(given->second.userName) +
           "\npassword=" + toUtf8(given->second.password) + "\n";
}

std::string CredentialServer::withoutPasswords(std::string text) const {
    for (const auto& [place, credentials] : m_given) {
        const auto password = toUtf8(credentials.password);
        if (password.empty())
            continue;
        for (std::size_t at = 0; (at = text.find(password, at)) != std::string::npos; at += 3)
            text.replace(at, password.size(), "***");
    }
    return text;
}

} // namespace quendo::git
