#include "host/Progress.h"

#include "host/StandardStreams.h"
#include "host/VisibleText.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace quendo::host {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 500ms;
constexpr auto redrawInterval = 100ms;
constexpr std::string_view clearLine = "\r\x1b[K";

void writeToTerminal(std::string_view text) noexcept {
    // A line that cannot be drawn is no reason to fail.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

std::size_t terminalWidth() noexcept {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

/// At most `limit` characters; a line that wraps could not be taken away again.
std::string shortened(std::string text, std::size_t limit) {
    std::size_t characters = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool startsCharacter = (static_cast<unsigned char>(text[i]) & 0xc0) != 0x80;
        if (startsCharacter && characters++ == limit)
            return text.substr(0, i);
    }
    return text;
}

} // namespace

Progress::Progress(const std::vector<std::shared_ptr<CMInteractor>>& interactors) {
    const char* kind = std::getenv("TERM");
    if (!isTerminal(STDERR_FILENO) || kind == nullptr || std::string_view(kind) == "dumb")
        return;
    for (const auto& interactor : interactors)
        m_connections.emplace_back(interactor->getProgressDispatcher().connect(
            [this](const UString& message, double fraction) {
                const std::lock_guard lock(m_mutex);
                m_message = toUtf8(message);
                m_fraction = fraction;
            }));
    try {
        m_thread = std::thread(&Progress::show, this);
    } catch (const std::system_error&) {
        m_connections.clear(); // without a thread there is no line
    }
}

Progress::~Progress() {
    finish();
}

void Progress::finish() {
    if (!m_thread.joinable())
        return;
    m_connections.clear();
    {
        const std::lock_guard lock(m_mutex);
        m_finished = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void Progress::note(std::string_view message) {
    const std::lock_guard lock(m_mutex);
    if (!m_drawn.empty())
        writeToTerminal(clearLine);
    m_drawn.clear();
    writeError(message);
}

// The seconds move also while nobody knows how far the work is.
std::string Progress::lineNow() const {
    std::string line = m_message.empty() ? "working" : visibleText(m_message);
    if (m_fraction > 0 && m_fraction <= 1)
        line += " " + std::to_string(std::lround(m_fraction * 100)) + " %";
    const auto elapsed =
        std::chrono::floor<std::chrono::seconds>(std::chrono::steady_clock::now() - m_start);
    if (elapsed > 0s)
        line += ", " + std::to_string(elapsed.count()) + " s";
    return shortened(std::move(line), std::max<std::size_t>(terminalWidth(), 2) - 1);
}

void Progress::show() noexcept {
    try {
        std::unique_lock lock(m_mutex);
        const auto finished = [this] { return m_finished; };
        if (m_changed.wait_for(lock, patience, finished))
            return;
        do {
            if (auto line = lineNow(); line != m_drawn) {
                m_drawn = std::move(line);
                writeToTerminal(std::string(clearLine) + m_drawn);
            }
        } while (!m_changed.wait_for(lock, redrawInterval, finished));
    } catch (...) {
        // Without memory there is no line.
    }
    writeToTerminal(clearLine);
}

} // namespace quendo::host
