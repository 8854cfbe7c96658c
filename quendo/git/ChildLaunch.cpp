#include "quendo/git/ChildLaunch.h"

#include "quendo/exception/AdapterErrors.h"

#include <algorithm>
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

#if defined(__x86_64__)
constexpr std::uint32_t auditArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t auditArchitecture = AUDIT_ARCH_AARCH64;
#endif

#if defined(__x86_64__) || defined(__aarch64__)
#ifdef __NR_utime
constexpr std::uint32_t openCall = __NR_open, utimeCall = __NR_utime, utimesCall = __NR_utimes;
#else
constexpr std::uint32_t openCall = ~0U, utimeCall = ~0U, utimesCall = ~0U; // not on this machine
#endif

constexpr std::uint32_t argument(int number) {
    return offsetof(seccomp_data, args) +
           static_cast<std::uint32_t>(number) * sizeof(std::uint64_t);
}
#endif

// A git that only reads writes in two cases, and has no option against it. When it reads a split
// index, it renews the time of the shared part. When it expands or collapses a sparse index, it
// writes the trees of what is staged and renews the times of those that exist. Both are writes to
// the user's metadata, and wake whoever watches them.
//
// So git believes that it set the times, and cannot create a file with the mode that it gives new
// objects alone; without the trees it goes on and answers the same.
bool keepFromWritingMetadata() {
#if defined(__x86_64__) || defined(__aarch64__)
    constexpr std::uint32_t modeOfObjects = 0444;
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, auditArchitecture, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, utimeCall, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, utimesCall, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_utimensat, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, openCall, 6, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 0), // of times
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(2)),  // of openat: flags, then mode
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_CREAT, 0, 7),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(3)),
        BPF_STMT(BPF_JMP | BPF_JA, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(1)), // of open: the same
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_CREAT, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(2)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, modeOfObjects, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EROFS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
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
struct Prepared {
    const ChildLaunch& launch;
    char* const* arguments;
    char* const* environment;
    rlimit memory;
    rlimit processor;
    pid_t parent;
    volatile int error = 0;
};

bool putStreams(const ChildLaunch& launch) {
    if (::fchdir(launch.workingFolder) != 0 || ::dup2(launch.input, 0) != 0 ||
        ::dup2(launch.output, 1) != 1 || ::dup2(launch.errors, 2) != 2)
        return false;
    if (launch.extra < 0)
        return true;
    // dup2() on itself would leave it to be closed.
    return launch.extra == 3 ? ::fcntl(3, F_SETFD, 0) == 0 : ::dup2(launch.extra, 3) == 3;
}

[[noreturn]] void runInChild(Prepared& prepared) {
    // Handlers first: a signal let through before exec would run the host's handler in its memory.
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal)
        ::sigaction(signal, &standard, nullptr);

    const auto& launch = prepared.launch;
    const bool outlives = launch.lifetime == ChildLifetime::OutlivesParent;
    const bool ready =
        (outlives || launch.ownSession ? ::setsid() > 0 : ::setpgid(0, 0) == 0) &&
        (outlives || ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0) && putStreams(launch) &&
        (launch.memoryLimit == 0 || ::setrlimit(RLIMIT_DATA, &prepared.memory) == 0) &&
        (launch.processorLimit.count() == 0 || ::setrlimit(RLIMIT_CPU, &prepared.processor) == 0);
    // A kernel without filters gives nothing worse than a new time, or a tree that nobody needs.
    if (ready && launch.keepMetadata)
        keepFromWritingMetadata();
    if (ready && ::getppid() == prepared.parent) {
        ::syscall(SYS_close_range, launch.extra < 0 ? 3U : 4U, ~0U, CLOSE_RANGE_CLOEXEC);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execve(launch.executable.c_str(), prepared.arguments, prepared.environment);
    }
    prepared.error = errno;
    ::_exit(127);
}

[[gnu::noinline]] pid_t launchChild(Prepared& prepared) {
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = ::vfork();
    if (pid == 0)
        runInChild(prepared);
    const int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (pid < 0)
        prepared.error = error;
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

/// The limit of this process for `resource`, lowered to these values where they are lower.
rlimit limitOf(int resource, rlim_t soft, rlim_t hard) {
    rlimit limit{};
    ::getrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
    limit.rlim_max = std::min(limit.rlim_max, hard);
    limit.rlim_cur = std::min({limit.rlim_cur, limit.rlim_max, soft});
    return limit;
}

} // namespace

StartedChild startChild(const ChildLaunch& launch) {
    const auto seconds = static_cast<rlim_t>(launch.processorLimit.count());
    const auto arguments = pointersTo(launch.arguments, launch.executable.c_str());
    const auto environment = pointersTo(launch.environment);
    Prepared prepared{
        .launch = launch,
        .arguments = arguments.data(),
        .environment = environment.data(),
        .memory = limitOf(RLIMIT_DATA, launch.memoryLimit, launch.memoryLimit),
        .processor = limitOf(RLIMIT_CPU, seconds, seconds + 1), // SIGXCPU, then SIGKILL
        .parent = ::getpid(),
    };
    StartedChild child;
    child.id = launchChild(prepared);
    int error = prepared.error;
    if (child.id > 0) {
        child.handle = FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child.id, 0)));
        if (!child.handle && error == 0) {
            error = errno;
            ::kill(-child.id, SIGKILL);
        }
        if (error != 0)
            reap(child);
    }
    if (error != 0)
        throw std::system_error(error, std::generic_category(),
                                "cannot start " + launch.executable);
    return child;
}

bool waitForEnd(const StartedChild& child, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        pollfd ended{child.handle.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const int answer = ::poll(&ended, 1, std::max(0, static_cast<int>(left.count())));
        if (answer >= 0 || errno != EINTR)
            return answer > 0;
    }
}

ExitStatus reap(const StartedChild& child) {
    siginfo_t info = {};
    rusage used = {};
    long answer = 0;
    do {
        // The C library's waitid() does not give what the child used.
        answer = child.handle
                     ? ::syscall(SYS_waitid, P_PIDFD, child.handle.get(), &info, WEXITED, &used)
                     : ::syscall(SYS_waitid, P_PID, child.id, &info, WEXITED, &used);
    } while (answer != 0 && errno == EINTR);
    if (answer != 0)
        throw exception::ToolError(
            "the exit status of git is lost: this process ignores SIGCHLD, or another part of it "
            "reaps children that it did not start");
    const auto durationOf = [](const timeval& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
    };
    ExitStatus status{.processorTime = durationOf(used.ru_utime) + durationOf(used.ru_stime)};
    if (info.si_code != CLD_EXITED)
        status.signal = info.si_status;
    status.code = status.signal == 0 ? info.si_status : 128 + status.signal;
    return status;
}

FileDescriptor aboveStandard(int descriptor) {
    FileDescriptor given(descriptor);
    if (descriptor < 0 || descriptor > 2)
        return given;
    return FileDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
}

} // namespace quendo::git
