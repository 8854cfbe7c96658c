#pragma once

namespace CLI {
class App;
}

namespace quendo::host {

/// One of the program's commands. It describes itself to the parser, which fills its members, and
/// is run then.
class Command {
public:
    virtual ~Command() = default;

    /// Adds the command to `program`: its options and its help. The parser writes to this object,
    /// which has to outlive it; what only all options together tell is a final callback, and throws
    /// CLI::ValidationError for wrong usage.
    virtual CLI::App* describe(CLI::App& program) = 0;

    virtual void run() const = 0;
};

} // namespace quendo::host
