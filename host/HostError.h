#pragma once

#include <stdexcept>

namespace quendo::host {

/// Why the program refuses or fails: one line for people, without "quendo: ".
class HostError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A signal asked the program to stop. It ends without a word.
class Interrupted : public std::runtime_error {
public:
    Interrupted() : std::runtime_error("interrupted") {}
};

/// The reader of standard output has closed it. The program ends as by SIGPIPE.
class OutputClosed : public std::runtime_error {
public:
    OutputClosed() : std::runtime_error("nobody reads the output") {}
};

} // namespace quendo::host
