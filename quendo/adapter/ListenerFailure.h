#pragma once

namespace quendo {

/// What a listener that throws does to the listeners behind it. Either way its exception reaches
/// the caller of the signal.
enum class ListenerFailure {
    SkipsRest,  ///< they are not called
    SparesRest, ///< they are called first; what they throw as well is logged
};

} // namespace quendo
