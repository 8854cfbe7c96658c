#pragma once

#include <string_view>

/// The program's three standard streams, without iostream: output is made whole before anything
/// of it is written, and a stream that cannot take it is an error that is told.
namespace quendo::host {

/// Call first: puts something in the place of closed streams, so that no file opened later gets
/// their numbers, and makes a reader that has gone an error instead of a signal.
void prepareStandardStreams();

bool isTerminal(int stream) noexcept;

/// Whether standard output is a terminal that takes colours, and the user wants them (NO_COLOR).
bool wantsColours();

/// @throws HostError when standard output does not take all of it.
void writeOutput(std::string_view text);

/// "quendo: <message>" as exactly one line on standard error; whatever the message holds.
void writeError(std::string_view message) noexcept;

} // namespace quendo::host
