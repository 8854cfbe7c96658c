#pragma once

#include "host/Command.h"
#include "host/StandardStreams.h"
#include "quendo/platform/Logging.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quendo::host {

/// Wrong usage: one line that names the command's --help.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the command line asks for.
struct Invocation {
    std::unique_ptr<const Command> command; ///< null when only `notice` is asked for
    std::string notice;                     ///< a help text, or the version
    std::optional<platform::Severity> logLevel;
    Colours colours = Colours::Auto;
    std::vector<std::string> folders; ///< to change to, one after the other
};

/// Arguments are native bytes and stay what they are.
/// @throws UsageError
Invocation parseCommandLine(int count, const char* const* arguments);

} // namespace quendo::host
