#pragma once

#include <string>
#include <variant>

namespace quendo {

struct Git {
    friend bool operator==(Git, Git) noexcept { return true; }
};
struct SVN {
    friend bool operator==(SVN, SVN) noexcept { return true; }
};

/// Chooses an adapter factory: by its identifier, or by the system it stands for.
using CMAdapterType = std::variant<std::string, Git, SVN>;

} // namespace quendo
