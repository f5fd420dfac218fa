#pragma once

#include <QByteArray>
#include <QDomDocument>
#include <QString>

namespace core::configuration {

/// Reads a regular file of at most kMaxXmlSize bytes without ever blocking on it.
/// \return whether it could be read whole into \a content; one that grows meanwhile could not
bool ReadConfigFile(const QString& path, QByteArray& content);

/// Parses \a xml without namespace processing, keeping text that is only blanks.
/// \return false, with \a document untouched, when it is not well-formed or exceeds the limits
///         (XmlLimits.h)
bool ParseXml(const QByteArray& xml, QDomDocument& document);

} // namespace core::configuration
