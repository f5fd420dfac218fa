#pragma once

#include <string>
#include <vector>

namespace core::system {

/// Runs a command line with the shell and blocks until it ends. Its exit status is not known: the daemon's
/// SIGCHLD handler may have taken it.
/// \return the lines of its output, each with its newline, longer ones in pieces of 79 bytes; empty when the
///         command could not be started
std::vector<std::string> OutputLines(const char* command);

/// \return the number at the start of the last line of the command's output, 0 when that holds none; -1 when
///         there is no output or the command could not be started
int NumberInLastLine(const char* command);

/// Reads a number that the kernel shows as a file.
/// \return as NumberInLastLine; -1 also when the file cannot be read
int GetType(const char* path);

} // namespace core::system
