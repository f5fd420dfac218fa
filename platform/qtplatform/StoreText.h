#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

/// The text of the store: one line KEY=VALUE per entry, UTF-8, sorted by key. Lines that start with ';' or
/// '#' and empty lines are comments. Blanks around key and value do not count. What a line cannot hold as it
/// stands is escaped: \\ \n \r \t and \xHHHH, one UTF-16 code unit in four hexadecimal digits.
namespace com::veltrasys::registry {

using Entries = QMap<QString, QString>;

/// \return \a key on one line, without an equals sign and not mistakable for a comment or a section
QString EscapeKey(const QString& key);

/// \return \a value on one line
QString EscapeValue(const QString& value);

/// What was found in a store.
struct Content {
    Entries entries;
    /// Why the store could not be read; empty when it could.
    QString error;
};

/// Takes the text of a store apart. Of a key that occurs twice the last value holds.
/// \return the entries, or as error the first line that is no entry, a bad escape or bytes that are not UTF-8
Content ParseStore(const QByteArray& text);

/// \return the text that ParseStore turns back into \a entries
QByteArray FormatStore(const Entries& entries);

} // namespace com::veltrasys::registry
