#pragma once

#include <QVariant>

namespace kxctl {

/// Turns what arrives from the bus into plain lists, maps and values.
QVariant Plain(const QVariant& value);

/// Writes a value as a JSON document: indented, or as one line.
void PrintJson(const QVariant& value, bool isOneLine = false);

/// \return a value for people: yes or no for a bool, JSON for lists and maps, nothing for empty ones
QString ToText(const QVariant& value);

} // namespace kxctl
