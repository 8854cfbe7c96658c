#include "quendo/adapter/SingleThreadedCMAdapter.h"

#include "quendo/adapter/BackgroundTurns.h"
#include "quendo/adapter/QueryOrigin.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/OwnWrites.h"

#include <chrono>
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace quendo {

// The arguments go into the tasks by value: a caller may be torn down while its task still waits,
// if the executor is one that gives up. What the caller works for goes along, so that cancelling
// that reaches the call, and nothing else that runs on the executor.
namespace {

/// The processor time that this thread has used.
std::chrono::nanoseconds threadTime() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// Reports a background query. Its cost is the processor time of its thread and of the programs
/// that it ran; where the adapter does not tell of programs, all of its time on the executor,
/// because a program or a server may have worked for it.
class BackgroundQuery {
public:
    /// @param origin what the query is for; null for what is not counted
    BackgroundQuery(std::shared_ptr<BackgroundTurns> turns,
                    std::shared_ptr<const QueryOrigin> origin)
        : m_turns(std::move(turns)), m_origin(std::move(origin)) {}

    void start() noexcept {
        if (m_origin == nullptr)
            return;
        m_start = BackgroundTurns::Clock::now();
        m_threadTime = threadTime();
        m_programTime = m_origin->programTime();
        m_turns->queryStarted();
    }
    void stop() const noexcept {
        if (m_origin == nullptr)
            return;
        m_turns->queryEnded(m_origin->hasProgramTime()
                                ? threadTime() - m_threadTime +
                                      (m_origin->programTime() - m_programTime)
                                : BackgroundTurns::Clock::now() - m_start);
    }

private:
    std::shared_ptr<BackgroundTurns> m_turns;
    std::shared_ptr<const QueryOrigin> m_origin;
    BackgroundTurns::Clock::time_point m_start;
    std::chrono::nanoseconds m_threadTime{};
    std::chrono::microseconds m_programTime{};
};

/// What the operation throws is handed over whole: the executor's thread lets go of it before the
/// caller may look at it, and never destroys it.
template <class Operation>
auto runFor(Executor& executor, const std::shared_ptr<BackgroundTurns>& turns,
            const std::optional<TaskSubject>& subject, Operation operation) {
    using Result = std::invoke_result_t<Operation&>;
    constexpr bool isVoid = std::is_void_v<Result>;
    using Kept = std::conditional_t<isVoid, bool, std::optional<Result>>;
    const auto failure = std::make_shared<std::exception_ptr>();
    auto origin = QueryOrigin::current();
    const bool isBackground = origin != nullptr && origin->urgency() == QueryUrgency::Background;
    auto task = [query = BackgroundQuery(turns, isBackground ? origin : nullptr),
                 origin = std::move(origin), operation = std::move(operation), failure,
                 waiting = BackgroundTurns::Waiting(turns, isBackground)]() mutable {
        waiting.started();
        query.start();
        Kept kept{};
        try {
            const QueryOrigin::WorkScope scope(origin);
            if constexpr (isVoid)
                operation();
            else
                kept = operation();
        } catch (...) {
            *failure = std::current_exception();
        }
        query.stop();
        return kept;
    };
    auto result = subject ? executor.runSyncTaskFor(*subject, std::move(task))
                          : executor.runSyncTask(std::move(task));
    if (auto thrown = std::exchange(*failure, nullptr))
        std::rethrow_exception(std::move(thrown));
    if constexpr (!isVoid)
        return std::move(*result);
}

std::optional<TaskSubject> subjectOf(const std::optional<Path>& workingCopy, bool isQuery) {
    return workingCopy ? std::optional(TaskSubject{*workingCopy, isQuery}) : std::nullopt;
}

} // namespace

SingleThreadedCMAdapter::SingleThreadedCMAdapter(std::shared_ptr<Executor> executor,
                                                 std::unique_ptr<CMAdapter> adapter)
    : CMAdapterDecorator(std::move(adapter)), m_executor(std::move(executor)) {
    if (m_executor == nullptr)
        throw exception::InvalidArgumentError("a single-threaded adapter needs an executor");
    m_turns = BackgroundTurns::of(m_executor);
}

SingleThreadedCMAdapter::SingleThreadedCMAdapter(std::shared_ptr<Executor> executor,
                                                 std::unique_ptr<CMAdapter> adapter,
                                                 const Path& workingCopy)
    : SingleThreadedCMAdapter(std::move(executor), std::move(adapter)) {
    m_workingCopy = workingCopy;
}

SingleThreadedCMAdapter::~SingleThreadedCMAdapter() = default;

template <class Operation>
auto SingleThreadedCMAdapter::change(Operation operation) const {
    return runFor(*m_executor, m_turns, subjectOf(m_workingCopy, false),
                  OwnWrites::handOver(std::move(operation)));
}

template <class Operation>
auto SingleThreadedCMAdapter::query(Operation operation) const {
    return runFor(*m_executor, m_turns, subjectOf(m_workingCopy, true), std::move(operation));
}

void SingleThreadedCMAdapter::checkin(const Path& file, const UString& message) const {
    change([=, this] { CMAdapterDecorator::checkin(file, message); });
}

void SingleThreadedCMAdapter::checkin(const std::vector<Path>& files,
                                      const UString& message) const {
    change([=, this] { CMAdapterDecorator::checkin(files, message); });
}

void SingleThreadedCMAdapter::addFiles(const std::vector<Path>& files) const {
    change([=, this] { CMAdapterDecorator::addFiles(files); });
}

void SingleThreadedCMAdapter::removeFiles(const std::vector<Path>& files) const {
    change([=, this] { CMAdapterDecorator::removeFiles(files); });
}

void SingleThreadedCMAdapter::moveFile(const Path& source, const Path& destination) const {
    change([=, this] { CMAdapterDecorator::moveFile(source, destination); });
}

void SingleThreadedCMAdapter::uncheckout(const std::vector<Path>& files) const {
    change([=, this] { CMAdapterDecorator::uncheckout(files); });
}

void SingleThreadedCMAdapter::resolveConflict(const Path& file) const {
    change([=, this] { CMAdapterDecorator::resolveConflict(file); });
}

std::map<Path, FileState> SingleThreadedCMAdapter::getStatus(const std::vector<Path>& files) const {
    return query([=, this] { return CMAdapterDecorator::getStatus(files); });
}

std::map<Path, FileState> SingleThreadedCMAdapter::getStatus(const Path& path,
                                                             bool includeUntracked) const {
    return query([=, this] { return CMAdapterDecorator::getStatus(path, includeUntracked); });
}

std::vector<std::unique_ptr<Revision>> SingleThreadedCMAdapter::listRevisions(
    const Path& file, std::optional<std::reference_wrapper<const Revision>> from) const {
    return query([=, this] { return CMAdapterDecorator::listRevisions(file, from); });
}

} // namespace quendo
