#pragma once

#include "tests/support/TemporaryFolder.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace quendo::test {

/// Serves git repositories over HTTP on this machine, to those who know the password.
class GitServer {
public:
    /// @param folder holds the repositories
    /// @param onRequest runs on the server's thread for each request, while git waits
    GitServer(const std::filesystem::path& folder, const std::string& user,
              const std::string& password, std::function<void()> onRequest = {});
    ~GitServer();
    GitServer(const GitServer&) = delete;
    GitServer& operator=(const GitServer&) = delete;

    /// "127.0.0.1:<port>"
    const std::string& host() const { return m_host; }
    /// Requests so far.
    int asked() const { return m_asked; }

private:
    void serve();
    void answer(int connection);

    const std::filesystem::path m_folder;
    const std::function<void()> m_onRequest;
    const TemporaryFolder m_scratch;
    const std::vector<std::string> m_environment; ///< as it was when the server began
    std::string m_expected;                       ///< the header that lets somebody in
    std::string m_host;
    std::atomic<int> m_asked{0};
    int m_socket = -1;
    std::thread m_thread;
};

} // namespace quendo::test
