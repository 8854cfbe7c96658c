#pragma once

#include "quendo/platform/Export.h"

namespace quendo {

/// The turn that a running task has on its executor. Implemented by executors that run other tasks
/// while one waits outside; all calls come from the thread that runs the task.
class QUENDO_API ExecutorTurn {
public:
    virtual ~ExecutorTurn();

    /// From now on other tasks may run.
    virtual void giveAway() noexcept = 0;

    /// Starts no other task any more, and returns when none is running.
    virtual void takeBack() noexcept = 0;

    /// Makes `turn` the one of this thread's task while it lives.
    class QUENDO_API Scope {
    public:
        explicit Scope(ExecutorTurn& turn) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        ExecutorTurn* const m_previous;
    };
};

/// While it lives, the task on this thread waits outside its executor: for a child process, for
/// another program's lock, for the user. Make it only where the task relies on nothing that queries
/// of other working copies could change. Does nothing outside a task, in a task that has given its
/// turn away already, and on an executor that does not support it.
///
/// The destructor waits until the query that runs meanwhile has ended.
class QUENDO_API OutsideExecutor {
public:
    OutsideExecutor() noexcept;
    ~OutsideExecutor();
    OutsideExecutor(const OutsideExecutor&) = delete;
    OutsideExecutor& operator=(const OutsideExecutor&) = delete;

private:
    ExecutorTurn* const m_turn;
};

} // namespace quendo
