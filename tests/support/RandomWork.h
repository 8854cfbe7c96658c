#pragma once

#include "tests/support/GitSandbox.h"

#include <filesystem>
#include <random>
#include <string>

namespace quendo::test {

/// People, tools and git itself at work in a sandbox's working copy, at random.
class RandomWork {
public:
    /// @param hasNested submodules, nested repositories, worktrees and moved metadata among it
    RandomWork(const GitSandbox& sandbox, unsigned seed, bool hasNested = false)
        : m_sandbox(sandbox), m_random(seed), m_hasNested(hasNested) {}
    /// Leaves nothing that cannot be read.
    ~RandomWork();
    RandomWork(const RandomWork&) = delete;
    RandomWork& operator=(const RandomWork&) = delete;

    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

    /// Many make no sense, and are refused. @return what was done
    std::string act(unsigned count);

private:
    const GitSandbox& m_sandbox;
    std::mt19937 m_random;
    const bool m_hasNested;
};

/// Whether a folder holds no files but metadata, however deep, or none that can be seen. To git a
/// FIFO is no file. A folder like that is answered when it is asked for, but in no other folder's
/// answer.
bool isWithoutFiles(const std::filesystem::path& folder);

} // namespace quendo::test
