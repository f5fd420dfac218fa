#pragma once

#include <functional>

namespace core::system {

/// Runs a command line with the shell, hands its output to \a take line by line, and waits for its end. The
/// exit status is not known: the daemon's SIGCHLD handler may have taken it.
///
/// \param take  receives each line with its newline, longer ones in pieces of 79 bytes; returns false to
///              leave the rest unread
/// \return false when the command could not be started
bool ForEachLine(const char* command, const std::function<bool(const char* line)>& take);

/// \return the number at the start of the last line of the command's output, 0 when that holds none; -1 when
///         there is no output or the command could not be started
int NumberInLastLine(const char* command);

} // namespace core::system
