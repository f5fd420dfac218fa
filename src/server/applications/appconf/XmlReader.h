#pragma once

#include <QByteArray>
#include <QDomDocument>
#include <QString>

namespace core::configuration {

/// Largest app.conf that is read, in bytes.
constexpr int kMaxXmlSize = 1024 * 1024;

/// Why a text is not read, and where that shows.
struct XmlError {
    QString text;
    int line = 0;   ///< from 1
    int column = 0; ///< from 1
};

/// Reads a regular file of at most kMaxXmlSize bytes, also through a link. Never blocks, and opens no device.
/// \return whether it could be read into \a content
bool ReadConfigFile(const QString& path, QByteArray& content);

/// Parses \a xml without namespace processing, keeping text that is only blanks. Elements nested deeper than
/// 100 levels, more than 256 declarations of entities, entities that could expand to more than 4 Mi
/// characters, and more than 10,000 "(" where elements are declared count as not well-formed: the DOM reader
/// would exhaust the stack, the memory or the time.
///
/// \param error  receives the reason of a failure; may be null
/// \return false, with \a document untouched, when \a xml is not well-formed
bool ParseXml(const QByteArray& xml, QDomDocument& document, XmlError* error = nullptr);

} // namespace core::configuration
