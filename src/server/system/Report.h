#pragma once

#include <QString>

#include <functional>
#include <string>

namespace core::system {

/// Logs at error level what may hold a caller's text. Control characters show as "?": a log that takes a line
/// end for the end of a record would let the caller forge the next.
///
/// \param function  in whose name to log
void LogError(const char* function, const std::string& text);

/// Runs steps that report their failure by throwing. What they throw is logged at error level: the text of a
/// standard exception, "unknown exception" for anything else.
///
/// \param function  in whose name to log
/// \return whether the steps ran to their end
bool Attempt(const char* function, const std::function<void()>& steps);

/// \return what Misc::Excerpt leaves of a caller's text, as 8-bit text, UTF-8
std::string ExcerptOf(const QString& text);

} // namespace core::system
