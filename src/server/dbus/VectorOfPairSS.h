#pragma once

#include <QDBusArgument>
#include <QMetaType>
#include <QPair>
#include <QString>
#include <QVector>

/// A dictionary of strings in the order it was written, duplicate keys included. D-Bus signature a{ss}.
using QVectorOfPairSS = QVector<QPair<QString, QString>>;

Q_DECLARE_METATYPE(QVectorOfPairSS)

/// Registers the type under the name "QVectorOfPairSS" and its marshalling. Safe to call repeatedly; a
/// process calls it before it sends or receives the type.
void RegisterVectorOfPairSS();

/// Writes one map entry per pair, in vector order.
QDBusArgument& operator<<(QDBusArgument& argument, const QVectorOfPairSS& pairs);

/// Reads one pair per map entry, in the order received, and appends them to \a pairs.
const QDBusArgument& operator>>(const QDBusArgument& argument, QVectorOfPairSS& pairs);
