#include "host/OutputWatch.h"

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace quendo::host {
namespace {

bool canLoseItsReader(int stream) noexcept {
    struct stat about {};
    return ::fstat(stream, &about) == 0 && (S_ISFIFO(about.st_mode) || S_ISSOCK(about.st_mode));
}

} // namespace

OutputWatch::OutputWatch(std::function<void()> onClosed)
    : m_stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_stop < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    if (!canLoseItsReader(STDOUT_FILENO))
        return;
    m_thread = std::thread([stop = m_stop, onClosed = std::move(onClosed)] {
        // No events are requested: poll() reports POLLERR and POLLHUP always.
        pollfd files[] = {{STDOUT_FILENO, 0, 0}, {stop, POLLIN, 0}};
        while (::poll(files, 2, -1) < 0) {
        }
        if (files[1].revents == 0)
            onClosed();
    });
}

OutputWatch::~OutputWatch() {
    if (m_thread.joinable()) {
        ::eventfd_write(m_stop, 1);
        m_thread.join();
    }
    ::close(m_stop);
}

} // namespace quendo::host
