#include "quendo/git/ChildProcess.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/ProcessActivity.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace quendo::git {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds round{100};
constexpr std::chrono::milliseconds timeToStop{250};
constexpr std::chrono::milliseconds patience{2'000};

// Above the bound for the child with all that it started, which ends with the better error.
constexpr std::chrono::seconds marginOfOne{2};

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    Pipe pipe{aboveStandard(ends[0]), aboveStandard(ends[1])};
    if (!pipe.read || !pipe.write)
        throw std::system_error(errno, std::generic_category(), "fcntl");
    return pipe;
}

void makeNonBlocking(const FileDescriptor& descriptor) {
    ::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK);
}

} // namespace

ChildProcess::ChildProcess(const ChildPlan& plan, std::function<void(std::string_view)> consume)
    : m_consume(std::move(consume)), m_pendingInput(plan.input), m_errorsKept(plan.errorsKept),
      m_asksServer(plan.asksServer),
      m_processorLimit(plan.processorLimit.count() == 0
                           ? 0
                           : std::max<std::uint64_t>(1, toClockTicks(plan.processorLimit))) {
    FileDescriptor childInput;
    if (m_pendingInput.empty()) {
        childInput = aboveStandard(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } else {
        // A socket pair, not a pipe: writing to a reader that has gone then gives an error where a
        // pipe would send SIGPIPE to the host.
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
            throw std::system_error(errno, std::generic_category(), "socketpair");
        m_input = aboveStandard(ends[0]);
        childInput = aboveStandard(ends[1]);
        makeNonBlocking(m_input);
    }
    Pipe output = plan.outputFile < 0 ? makePipe() : Pipe{};
    Pipe errors = makePipe();

    m_child = startChild({
        .executable = plan.executable,
        .arguments = plan.arguments,
        .environment = plan.environment,
        .workingFolder = plan.workingFolder,
        .input = childInput.get(),
        .output = plan.outputFile < 0 ? output.write.get() : plan.outputFile,
        .errors = errors.write.get(),
        .memoryLimit = plan.memoryLimit,
        .processorLimit =
            plan.processorLimit.count() == 0
                ? std::chrono::seconds(0)
                : std::chrono::ceil<std::chrono::seconds>(plan.processorLimit) + marginOfOne,
        .keepMetadata = plan.keepMetadata,
        .ownSession = plan.asksServer,
    });
    m_output = std::move(output.read);
    m_errors = std::move(errors.read);
    if (m_output)
        makeNonBlocking(m_output);
    makeNonBlocking(m_errors);
}

ChildProcess::~ChildProcess() {
    end();
}

void ChildProcess::end() noexcept {
    if (m_child.id <= 0 || m_ended)
        return;
    if (m_asksServer) {
        ::kill(-m_child.id, SIGTERM);
        waitForEnd(m_child, timeToStop);
    }
    ::kill(m_child.id, SIGKILL);
    try {
        sweepAndReap();
    } catch (...) {
        m_ended = true;
    }
}

void ChildProcess::sweepAndReap() {
    // What the child left running would hold the pipes open. Until the child has been reaped its
    // number cannot belong to another group.
    ::kill(-m_child.id, SIGKILL);
    m_ended = true;
    // Killed, it may still be stuck in a file system that does not answer. Better a zombie than a
    // host that waits for a dead server.
    if (!waitForEnd(m_child, patience))
        throw exception::ToolError("git is stuck in the system and cannot be ended");
    const auto status = reap(m_child);
    m_result.exitCode = status.code;
    m_result.signal = status.signal;
    m_result.processorTime = status.processorTime;
}

void ChildProcess::handleOutput() {
    std::array<char, 64 * 1024> buffer;
    const auto count = ::read(m_output.get(), buffer.data(), buffer.size());
    if (count > 0) {
        m_heard = true;
        if (m_consume)
            m_consume(std::string_view(buffer.data(), static_cast<std::size_t>(count)));
    } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
        m_output.close();
    }
}

void ChildProcess::handleErrors() {
    std::array<char, 4096> buffer;
    const auto count = ::read(m_errors.get(), buffer.data(), buffer.size());
    if (count > 0) {
        m_heard = true;
        const auto room = m_errorsKept - std::min(m_errorsKept, m_result.errors.size());
        m_result.errors.append(buffer.data(), std::min(room, static_cast<std::size_t>(count)));
    } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
        m_errors.close();
    }
}

void ChildProcess::handleInput() {
    const auto count = ::send(m_input.get(), m_pendingInput.data() + m_written,
                              m_pendingInput.size() - m_written, MSG_NOSIGNAL);
    if (count > 0)
        m_written += static_cast<std::size_t>(count);
    else if (count < 0 && errno != EINTR && errno != EAGAIN)
        m_written = m_pendingInput.size();
    if (m_written == m_pendingInput.size())
        m_input.close();
}

void ChildProcess::waitForAll(std::span<ChildProcess* const> children,
                              const Cancellation& cancellation,
                              std::chrono::milliseconds stallLimit,
                              const std::function<void()>& eachRound, const ChildService& service) {
    struct EndOnFailure {
        std::span<ChildProcess* const> children;
        bool armed = true;
        ~EndOnFailure() {
            if (armed)
                for (auto* child : children)
                    child->end();
        }
    } endOnFailure{children};

    auto lastProgress = Clock::now();
    auto nextRound = lastProgress + round;
    std::uint64_t lastProcessorTime = 0;
    int roundsOnFifo = 0;
    std::vector<pollfd> polled;
    while (std::ranges::any_of(children, [](auto* child) { return !child->isFinished(); })) {
        polled.assign(1, {cancellation.fileDescriptor(), POLLIN, 0});
        for (auto* child : children) {
            polled.push_back({child->m_output.get(), POLLIN, 0});
            polled.push_back({child->m_errors.get(), POLLIN, 0});
            polled.push_back({child->m_input.get(), POLLOUT, 0});
            polled.push_back({child->m_ended ? -1 : child->m_child.handle.get(), POLLIN, 0});
        }
        polled.push_back({service.descriptor, POLLIN, 0});
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextRound - Clock::now());
        ::poll(polled.data(), polled.size(), std::max(0, static_cast<int>(left.count())));
        cancellation.throwIfRequested();
        if (polled.back().revents != 0) {
            // This may wait for the user, which is no stall.
            service.serve();
            lastProgress = Clock::now();
        }
        for (std::size_t i = 0; i < children.size(); ++i) {
            const auto* of = &polled[1 + 4 * i];
            if (of[0].revents != 0)
                children[i]->handleOutput();
            if (of[1].revents != 0)
                children[i]->handleErrors();
            if (of[2].revents != 0)
                children[i]->handleInput();
            if (of[3].revents != 0)
                children[i]->sweepAndReap();
        }

        if (Clock::now() < nextRound)
            continue;
        nextRound = Clock::now() + round;
        if (eachRound)
            eachRound();
        ProcessActivity activity;
        bool heard = false;
        for (std::size_t i = 0; i < children.size(); ++i) {
            auto* const child = children[i];
            const bool one = std::exchange(child->m_heard, false);
            heard |= one;
            if (child->m_ended) {
                // Something that it left behind in another group holds its pipes open.
                if (!one) {
                    child->m_output.close();
                    child->m_errors.close();
                }
                continue;
            }
            const auto seen = lookAtProcess(child->m_child.id);
            activity.processorTime += seen.processorTime;
            activity.opensFifo |= seen.opensFifo;
            if (child->m_processorLimit != 0 && seen.processorTime > child->m_processorLimit)
                throw ChildOverBound{i, commandLinesOf(descendantsOf(child->m_child.id))};
        }
        // A FIFO that somebody serves is opened at once; two looks in a row say nobody does.
        roundsOnFifo = activity.opensFifo ? roundsOnFifo + 1 : 0;
        if (roundsOnFifo == 2)
            throw ChildStalled{true};
        if (heard || activity.processorTime != lastProcessorTime)
            lastProgress = Clock::now();
        lastProcessorTime = activity.processorTime;
        if (Clock::now() - lastProgress > stallLimit) {
            ChildStalled stalled{false};
            for (const auto* child : children)
                if (!child->m_ended)
                    std::ranges::move(commandLinesOf(descendantsOf(child->m_child.id)),
                                      std::back_inserter(stalled.commands));
            throw stalled;
        }
    }
    endOnFailure.armed = false;
}

} // namespace quendo::git
