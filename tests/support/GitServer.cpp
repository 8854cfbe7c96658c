#include "tests/support/GitServer.h"

#include "tests/support/Deadline.h"
#include "tests/support/Process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace quendo::test {
namespace {

std::string base64(const std::string& text) {
    constexpr const char* digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    for (std::size_t i = 0; i < text.size(); i += 3) {
        unsigned bits = 0;
        for (std::size_t j = i; j < i + 3; ++j)
            bits = bits << 8U | (j < text.size() ? static_cast<unsigned char>(text[j]) : 0U);
        for (std::size_t j = 0; j < 4; ++j)
            result += i + j > text.size() ? '=' : digits[bits >> (18 - 6 * j) & 63U];
    }
    return result;
}

void sendAll(int connection, std::string_view text) {
    while (!text.empty()) {
        const auto count = ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
        if (count <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::vector<std::string> currentEnvironment() {
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry)
        variables.emplace_back(*entry);
    return variables;
}

} // namespace

GitServer::GitServer(const std::filesystem::path& folder, const std::string& user,
                     const std::string& password, std::function<void()> onRequest)
    : m_folder(folder), m_onRequest(std::move(onRequest)), m_environment(currentEnvironment()),
      m_expected("Basic " + base64(user + ":" + password)),
      m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const named = reinterpret_cast<sockaddr*>(&address);
    if (::bind(m_socket, named, size) != 0 || ::listen(m_socket, 16) != 0 ||
        ::getsockname(m_socket, named, &size) != 0)
        throw std::system_error(errno, std::generic_category(), "a server");
    m_host = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    m_thread = std::thread([this] { serve(); });
}

GitServer::~GitServer() {
    ::shutdown(m_socket, SHUT_RDWR);
    m_thread.join();
    ::close(m_socket);
}

void GitServer::serve() {
    for (int connection; (connection = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        const timeval limit{deadline.count(), 0};
        ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        answer(connection);
        ::close(connection);
    }
}

// One request for each connection.
void GitServer::answer(int connection) {
    std::string request;
    const auto readUntil = [&](auto&& isEnough) {
        char bytes[4096];
        while (!isEnough()) {
            const auto count = ::recv(connection, bytes, sizeof bytes, 0);
            if (count <= 0)
                return false;
            request.append(bytes, static_cast<std::size_t>(count));
        }
        return true;
    };
    if (!readUntil([&] { return request.find("\r\n\r\n") != std::string::npos; }))
        return;
    const auto bodyStart = request.find("\r\n\r\n") + 4;
    const auto head = request.substr(0, bodyStart);
    const auto header = [&](const std::string& name) {
        const auto found = head.find("\r\n" + name + ": ");
        if (found == std::string::npos)
            return std::string();
        const auto value = found + name.size() + 4;
        return head.substr(value, head.find("\r\n", value) - value);
    };
    const auto length = std::strtoul(header("Content-Length").c_str(), nullptr, 10);
    if (!readUntil([&] { return request.size() >= bodyStart + length; }))
        return;
    ++m_asked;
    if (m_onRequest)
        m_onRequest();
    if (header("Authorization") != m_expected)
        return sendAll(connection, "HTTP/1.1 401 Unauthorized\r\nConnection: close\r\n"
                                   "WWW-Authenticate: Basic realm=\"test\"\r\n"
                                   "Content-Length: 0\r\n\r\n");
    const auto method = request.substr(0, request.find(' '));
    const auto target =
        request.substr(method.size() + 1, request.find(' ', method.size() + 1) - method.size() - 1);
    const auto question = std::min(target.find('?'), target.size());
    const auto body = m_scratch.path() / "body";
    writeFile(body, request.substr(bodyStart));
    const auto result = runProcess(
        {"sh", "-c", "exec git http-backend < \"$1\"", "sh", body.native()},
        {.workingFolder = m_folder,
         .environment = {{"GIT_PROJECT_ROOT", m_folder.native()},
                         {"GIT_HTTP_EXPORT_ALL", "1"},
                         {"REQUEST_METHOD", method},
                         {"PATH_INFO", target.substr(0, question)},
                         {"QUERY_STRING", target.substr(std::min(question + 1, target.size()))},
                         {"CONTENT_TYPE", header("Content-Type")},
                         {"HTTP_CONTENT_ENCODING", header("Content-Encoding")},
                         {"GIT_PROTOCOL", header("Git-Protocol")}},
         .inherited = m_environment});
    const auto status = result.output.starts_with("Status: ")
                            ? result.output.substr(8, result.output.find("\r\n") - 8)
                            : std::string("200 OK");
    sendAll(connection, "HTTP/1.1 " + status + "\r\nConnection: close\r\n" + result.output);
}

} // namespace quendo::test
