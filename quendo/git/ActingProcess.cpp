#include "quendo/git/ActingProcess.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/ChildLaunch.h"
#include "quendo/git/ProcessActivity.h"
#include "quendo/platform/ExecutorTurn.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace quendo::git {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds round{100};
constexpr std::chrono::milliseconds timeToStop{250};
constexpr std::chrono::milliseconds patience{2'000};
constexpr std::size_t outputKept = 16U << 20U;
constexpr std::size_t errorsKept = 64U << 10U;

/// A file without a name, in memory.
class MemoryFile {
public:
    MemoryFile() : m_file(aboveStandard(::memfd_create("quendo", MFD_CLOEXEC))) {
        if (!m_file)
            throw std::system_error(errno, std::generic_category(), "memfd_create");
    }

    explicit MemoryFile(std::string_view content) : MemoryFile() {
        while (!content.empty()) {
            const auto count = ::write(m_file.get(), content.data(), content.size());
            if (count < 0 && errno != EINTR)
                throw std::system_error(errno, std::generic_category(), "memfd");
            content.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
        ::lseek(m_file.get(), 0, SEEK_SET);
    }

    int descriptor() const noexcept { return m_file.get(); }

    /// Hands over what was written since the last time, and gives its memory back: a program may
    /// print for hours.
    template <class Consumer>
    void takeNew(Consumer&& consume) {
        std::array<char, 64 * 1024> buffer;
        for (;;) {
            const auto count = ::pread(m_file.get(), buffer.data(), buffer.size(), m_taken);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                break;
            m_taken += count;
            consume(std::string_view(buffer.data(), static_cast<std::size_t>(count)));
        }
        constexpr off_t worthIt = 1 << 20;
        if (m_taken - m_freed >= worthIt) {
            ::fallocate(m_file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, m_freed,
                        m_taken - m_freed);
            m_freed = m_taken;
        }
    }

private:
    FileDescriptor m_file;
    off_t m_taken = 0;
    off_t m_freed = 0;
};

void signalProcess(const FileDescriptor& handle, int signal) {
    ::syscall(SYS_pidfd_send_signal, handle.get(), signal, nullptr, 0);
}

/// Ends the child and all that it started, also what has left its process group.
void stop(const StartedChild& child) {
    std::vector<FileDescriptor> descendants;
    for (const pid_t pid : descendantsOf(child.id))
        descendants.emplace_back(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    const auto tell = [&](int signal) {
        // The group's number stays taken until the child has been reaped.
        ::kill(-child.id, signal);
        for (const auto& one : descendants)
            signalProcess(one, signal);
    };
    tell(SIGTERM);
    // git ends at once and its hooks with it; what those started may have locks to take away too.
    const auto limit = Clock::now() + timeToStop;
    const auto left = [&] {
        return std::max(std::chrono::milliseconds(0),
                        std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now()));
    };
    waitForEnd(child, left());
    for (const auto& one : descendants) {
        pollfd ended{one.get(), POLLIN, 0};
        if (one)
            ::poll(&ended, 1, static_cast<int>(left().count()));
    }
    tell(SIGKILL);
    if (!waitForEnd(child, patience))
        throw exception::ToolError("git is stuck in the system and cannot be ended");
}

} // namespace

ActingResult runActing(const ActingPlan& plan, const Cancellation& cancellation,
                       const WhileActing& meanwhile) {
    const MemoryFile input(plan.input), message(plan.message);
    MemoryFile output, errors;
    const auto child = startChild({
        .executable = plan.executable,
        .arguments = plan.arguments,
        .environment = plan.environment,
        .workingFolder = plan.workingFolder,
        .input = input.descriptor(),
        .output = output.descriptor(),
        .errors = errors.descriptor(),
        .extra = plan.message.empty() ? -1 : message.descriptor(),
        .lifetime = ChildLifetime::OutlivesParent,
    });

    // A git that ends soon keeps its turn: to take the turn back may mean to wait for a whole
    // query.
    std::optional<OutsideExecutor> outside;
    const auto stepOutside = [&] {
        if (!outside)
            outside.emplace();
    };
    ActingResult result;
    const auto takeErrors = [&] {
        bool heard = false;
        errors.takeNew([&](std::string_view text) {
            heard = true;
            result.errors += text;
            if (result.errors.size() > 2 * errorsKept)
                result.errors.erase(0, result.errors.size() - errorsKept);
            if (meanwhile.takeErrors)
                meanwhile.takeErrors(text);
        });
        return heard;
    };
    const auto takeOutput = [&] {
        bool heard = false;
        output.takeNew([&](std::string_view text) {
            heard = true;
            result.output.append(text.substr(0, outputKept - result.output.size()));
        });
        return heard;
    };

    auto lastProgress = Clock::now();
    auto nextRound = lastProgress + round;
    std::uint64_t lastProcessorTime = 0;
    for (bool ended = false; !ended;) {
        std::array<pollfd, 3> polled{{{cancellation.fileDescriptor(), POLLIN, 0},
                                      {child.handle.get(), POLLIN, 0},
                                      {meanwhile.served, POLLIN, 0}}};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextRound - Clock::now());
        ::poll(polled.data(), polled.size(), std::max(0, static_cast<int>(left.count())));
        ended = polled[1].revents != 0;
        if (ended)
            break;
        if (cancellation.isRequested() || result.stalled) {
            result.cancelled = !result.stalled;
            stop(child);
            break;
        }
        if (polled[2].revents != 0) {
            stepOutside();
            meanwhile.serve();
            lastProgress = Clock::now();
        }
        if (Clock::now() < nextRound)
            continue;
        nextRound = Clock::now() + round;
        stepOutside();
        const bool heard = takeErrors() | takeOutput();
        const auto activity = lookAtProcess(child.id);
        if (heard || activity.processorTime != lastProcessorTime)
            lastProgress = Clock::now();
        lastProcessorTime = activity.processorTime;
        result.stalled = Clock::now() - lastProgress > plan.stallLimit;
    }
    const auto status = reap(child);
    result.exitCode = status.code;
    result.signal = status.signal;
    takeErrors();
    takeOutput();
    if (result.errors.size() > errorsKept)
        result.errors.erase(0, result.errors.size() - errorsKept);
    return result;
}

} // namespace quendo::git
