#pragma once

#include <string_view>

/// The program's three standard streams, without iostream: output is made whole before anything
/// of it is written, and a stream that cannot take it is an error that is told.
namespace quendo::host {

/// Call first. Opens something in place of standard streams that are closed, so that no file opened
/// later gets their descriptors. Ignores SIGPIPE, because pipes to git can break as well; a write
/// to a closed pipe fails with an error instead.
void prepareStandardStreams();

/// Ends the process as SIGPIPE does; shells report exit code 141.
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

/// Writes all of it to standard output.
/// @throws OutputClosed when the reader has gone; HostError when writing fails for another reason,
///         or when SIGPIPE was ignored before the program started: the caller wants the error then;
///         Interrupted when an interrupt comes while the reader does not read
void writeOutput(std::string_view text);

/// Throws what writeOutput() does when the reader has gone.
[[noreturn]] void refuseClosedOutput();

/// "quendo: <message>" as exactly one line on standard error; whatever the message holds.
void writeError(std::string_view message) noexcept;

} // namespace quendo::host
