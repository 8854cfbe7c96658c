#pragma once

#include "quendo/platform/SourceControlException.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace quendo::git {

class Repository;

/// The queries of one working copy that ended at a bound, so that those that nobody waits for do
/// not run into it again and again. See the top of the source for when one is let through.
///
/// Threads: any.
class FailedQueries {
public:
    using Clock = std::chrono::steady_clock;

    /// A query: what is asked, and of which paths, relative to the root; none: everything.
    struct Query {
        std::string kind;
        std::vector<std::string> paths = {};
    };

    /// Files that may be the cause, and what identifies their content.
    using Stamps = std::vector<std::pair<std::string, std::vector<long long>>>;
    /// Those that every query reads, as they are now.
    static Stamps stampsOf(const Repository& repository);

    /// @throws the error with which the same query, or a part of it, failed before, when it is too
    ///         early to try it again
    void throwIfKnown(const Query& query, Clock::time_point now = Clock::now()) const;

    /// What came of a query that ended at a bound.
    struct Failure {
        const exception::SourceControlException& error;
        Stamps stamps;                  ///< from before the query
        std::chrono::milliseconds cost; ///< how long it took
        /// It waited for something that may come back, and nothing in the repository tells when.
        bool hung = false;
        std::string suspect = {}; ///< a file that may be the cause, absolute
    };
    void add(Query query, const Failure& failure, Clock::time_point now = Clock::now());

    /// A query was answered.
    void forget(const Query& query);

private:
    struct Entry {
        Query query;
        std::shared_ptr<const exception::SourceControlException> error;
        Stamps stamps;
        std::chrono::milliseconds pause;
        Clock::time_point failed;
    };

    mutable std::mutex m_lock;
    std::vector<Entry> m_entries; ///< guarded by m_lock
};

} // namespace quendo::git
