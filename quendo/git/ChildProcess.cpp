#include "quendo/git/ChildProcess.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/Cancellation.h"
#include "quendo/git/ProcessActivity.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/close_range.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

// Why not posix_spawn: the child needs a memory limit, a signal for the death of its parent, no
// inherited descriptors and sometimes a system-call filter, all set between fork and exec. vfork
// costs the same and copies no page tables, which matters in a process of an IDE's size.

namespace quendo::git {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds round{100};
constexpr std::chrono::milliseconds patience{2'000};

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;
};

// A host may run without standard streams. Their numbers are those that the child's are put on, so
// nothing that goes there may have one of them already.
FileDescriptor aboveStandard(int descriptor) {
    FileDescriptor given(descriptor);
    if (descriptor < 0 || descriptor > 2)
        return given;
    return FileDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
}

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

#if defined(__x86_64__)
constexpr std::uint32_t auditArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t auditArchitecture = AUDIT_ARCH_AARCH64;
#endif

// git renews the time of a split index's shared part whenever it reads it, which is a write to the
// user's metadata and wakes whoever watches them. There is no option against it.
bool pretendToSetFileTimes() {
#if defined(__x86_64__) || defined(__aarch64__)
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, auditArchitecture, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
#ifdef __NR_utime
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_utime, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_utimes, 2, 0),
#endif
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_utimensat, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 0),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
#else
    return true;
#endif
}

// Everything that the child needs, made before it exists: between vfork and exec it shares this
// process's memory and may neither allocate nor take a lock.
struct Launch {
    const char* executable;
    char* const* arguments;
    char* const* environment;
    int workingFolder;
    int input;
    int output;
    int errors;
    rlimit memory;
    bool limitMemory;
    bool keepFileTimes;
    pid_t parent;
    volatile int error = 0;
};

[[noreturn]] void runInChild(Launch& launch) {
    // Handlers first: a signal let through before exec would run the host's handler in its memory.
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal)
        ::sigaction(signal, &standard, nullptr);

    const bool ready = ::setpgid(0, 0) == 0 && ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
                       ::fchdir(launch.workingFolder) == 0 && ::dup2(launch.input, 0) == 0 &&
                       ::dup2(launch.output, 1) == 1 && ::dup2(launch.errors, 2) == 2 &&
                       (!launch.limitMemory || ::setrlimit(RLIMIT_DATA, &launch.memory) == 0);
    // A kernel without filters gives nothing worse than a new time.
    if (ready && launch.keepFileTimes)
        pretendToSetFileTimes();
    if (ready && ::getppid() == launch.parent) {
        ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execve(launch.executable, launch.arguments, launch.environment);
    }
    launch.error = errno;
    ::_exit(127);
}

[[gnu::noinline]] pid_t launchChild(Launch& launch) {
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = ::vfork();
    if (pid == 0)
        runInChild(launch);
    const int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (pid < 0)
        launch.error = error;
    return pid;
}

std::vector<char*> pointersTo(const std::vector<std::string>& words, const char* first = nullptr) {
    std::vector<char*> result;
    result.reserve(words.size() + 2);
    if (first != nullptr)
        result.push_back(const_cast<char*>(first));
    for (const auto& word : words)
        result.push_back(const_cast<char*>(word.c_str()));
    result.push_back(nullptr);
    return result;
}

int openHandle(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

} // namespace

ChildProcess::ChildProcess(const ChildPlan& plan, std::function<void(std::string_view)> consume)
    : m_consume(std::move(consume)), m_pendingInput(plan.input), m_errorsKept(plan.errorsKept) {
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

    rlimit memory{};
    ::getrlimit(RLIMIT_DATA, &memory);
    memory.rlim_max = std::min<rlim_t>(memory.rlim_max, plan.memoryLimit);
    memory.rlim_cur = std::min(memory.rlim_cur, memory.rlim_max);
    const auto arguments = pointersTo(plan.arguments, plan.executable.c_str());
    const auto environment = pointersTo(plan.environment);
    Launch launch{
        .executable = plan.executable.c_str(),
        .arguments = arguments.data(),
        .environment = environment.data(),
        .workingFolder = plan.workingFolder,
        .input = childInput.get(),
        .output = plan.outputFile < 0 ? output.write.get() : plan.outputFile,
        .errors = errors.write.get(),
        .memory = memory,
        .limitMemory = plan.memoryLimit != 0,
        .keepFileTimes = plan.keepFileTimes,
        .parent = ::getpid(),
    };
    m_pid = launchChild(launch);
    if (m_pid > 0) {
        m_handle = FileDescriptor(openHandle(m_pid));
        if (!m_handle)
            launch.error = errno;
    }
    if (launch.error != 0) {
        const int error = launch.error;
        end();
        throw std::system_error(error, std::generic_category(), "cannot start " + plan.executable);
    }
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
    if (m_pid <= 0 || m_ended)
        return;
    ::kill(m_pid, SIGKILL);
    try {
        sweepAndReap();
    } catch (...) {
        m_ended = true;
    }
}

void ChildProcess::sweepAndReap() {
    // What the child left running would hold the pipes open. Until the child has been reaped its
    // number cannot belong to another group.
    ::kill(-m_pid, SIGKILL);
    // Killed, it may still be stuck in a file system that does not answer. Better a zombie than a
    // host that waits for a dead server.
    const auto deadline = Clock::now() + patience;
    int hasEnded = 0;
    do {
        pollfd ended{m_handle.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        hasEnded = ::poll(&ended, 1, std::max(0, static_cast<int>(left.count())));
    } while (hasEnded < 0 && errno == EINTR);
    if (m_handle && hasEnded == 0) {
        m_ended = true;
        throw exception::ToolError("git is stuck in the system and cannot be ended");
    }
    siginfo_t info = {};
    const int options = WEXITED;
    int answer = 0;
    do {
        answer = m_handle ? ::waitid(P_PIDFD, static_cast<id_t>(m_handle.get()), &info, options)
                          : ::waitid(P_PID, static_cast<id_t>(m_pid), &info, options);
    } while (answer != 0 && errno == EINTR);
    if (answer != 0) {
        m_ended = true;
        throw exception::ToolError(
            "the exit status of git is lost: this process ignores SIGCHLD, or another part of it "
            "reaps children that it did not start");
    }
    m_ended = true;
    m_result.exitCode = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
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
                              const std::function<void()>& eachRound) {
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
            polled.push_back({child->m_ended ? -1 : child->m_handle.get(), POLLIN, 0});
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextRound - Clock::now());
        ::poll(polled.data(), polled.size(), std::max(0, static_cast<int>(left.count())));
        cancellation.throwIfRequested();
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
        for (auto* child : children) {
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
            const auto seen = lookAtProcess(child->m_pid);
            activity.processorTime += seen.processorTime;
            activity.opensFifo |= seen.opensFifo;
        }
        // A FIFO that somebody serves is opened at once; two looks in a row say nobody does.
        roundsOnFifo = activity.opensFifo ? roundsOnFifo + 1 : 0;
        if (roundsOnFifo == 2)
            throw ChildStalled{true};
        if (heard || activity.processorTime != lastProcessorTime)
            lastProgress = Clock::now();
        lastProcessorTime = activity.processorTime;
        if (Clock::now() - lastProgress > stallLimit)
            throw ChildStalled{false};
    }
    endOnFailure.armed = false;
}

} // namespace quendo::git
