#pragma once

#include "host/ActionCommands.h"
#include "host/ExportCommand.h"
#include "host/ListingCommands.h"
#include "host/LogCommand.h"
#include "host/StatusCommand.h"
#include "host/WatchCommand.h"
#include "quendo/platform/Logging.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

namespace quendo::host {

/// Wrong usage: one line that names the command's --help.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What is printed and nothing else: a help text, the version, a completion script.
struct Notice {
    std::string text;
};

/// What the command line asks for.
struct Invocation {
    std::variant<Notice, StatusCommand, WatchCommand, LogCommand, ExportCommand, AddCommand,
                 RemoveCommand, UntrackedCommand, ClientsCommand>
        command;
    std::optional<platform::Severity> logLevel;
};

/// Arguments are native bytes and stay what they are.
/// @throws UsageError
Invocation parseCommandLine(int count, const char* const* arguments);

} // namespace quendo::host
