#pragma once

#include <string_view>

/// The program's three standard streams, without iostream: output is made whole before anything
/// of it is written, and a stream that cannot take it is an error that is told.
namespace quendo::host {

/// Call first: puts something in the place of closed streams, so that no file opened later gets
/// their numbers, and makes a reader that has gone an error instead of a signal, because git's
/// pipes can break as well.
void prepareStandardStreams();

/// Ends the process as SIGPIPE does, with what the caller's shell makes of that (141).
[[noreturn]] void endByBrokenPipe();

/// When output is coloured.
enum class Colours {
    Auto, ///< on a terminal that takes colours, unless NO_COLOR is set
    Always,
    Never,
};
void setColours(Colours colours) noexcept;

bool isTerminal(int stream) noexcept;

/// Whether output is to be coloured, by setColours().
bool wantsColours();

/// @throws OutputClosed when the reader has gone; HostError when standard output does not take all
///         of it for another reason, or when SIGPIPE was ignored before the program started:
///         whoever did that wants to see the error
void writeOutput(std::string_view text);

/// Throws what writeOutput() does when the reader has gone.
[[noreturn]] void refuseClosedOutput();

/// "quendo: <message>" as exactly one line on standard error; whatever the message holds.
void writeError(std::string_view message) noexcept;

} // namespace quendo::host
