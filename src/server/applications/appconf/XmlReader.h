#pragma once

#include <QByteArray>
#include <QDomDocument>
#include <QString>

namespace core::configuration {

/// Largest app.conf that is read, and most text that its entities may expand to, in bytes.
constexpr int kMaxXmlSize = 1024 * 1024;

/// Deepest nesting of elements that is read; the DOM reader recurses.
constexpr int kMaxXmlDepth = 100;

/// Reads a regular file of at most kMaxXmlSize bytes without ever blocking on it.
/// \return whether it could be read whole into \a content
bool ReadConfigFile(const QString& path, QByteArray& content);

/// Parses \a xml without namespace processing, keeping text that is only blanks.
/// \return false, with \a document untouched, when it is not well-formed or exceeds the limits
bool ParseXml(const QByteArray& xml, QDomDocument& document);

} // namespace core::configuration
