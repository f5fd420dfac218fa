#pragma once

#include <QString>

#include <functional>
#include <string>

namespace core::system {

/// Runs steps that report their failure by throwing. What they throw is logged at error level: the text of a
/// standard exception, "unknown exception" for anything else.
///
/// \param function  in whose name to log
/// \return whether the steps ran to their end
bool Attempt(const char* function, const std::function<void()>& steps);

/// Cuts a caller's text to what a log record, a reply or a file takes. Text grows when it is escaped or
/// encoded, and the bus drops a daemon that sends too large a message.
/// \return the first 65,536 characters
QString Excerpt(const QString& text);

/// \return the same as 8-bit text, UTF-8
std::string ExcerptOf(const QString& text);

} // namespace core::system
