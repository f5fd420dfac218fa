#pragma once

#include <QList>
#include <QMetaType>
#include <QStringList>
#include <QVariantMap>

/// What Enumerate returns: one map per application. D-Bus signature aa{sv}.
using ApplicationList = QList<QVariantMap>;

/// Registers the type's marshalling. Safe to call repeatedly; a process calls it before it serves or calls
/// Enumerate. Without it the reply would carry no value at all.
void RegisterApplicationList();

/// Takes the largest records out of a list until the bus carries it: the bus drops the connection of who
/// sends more than 32 MiB, and with it the daemon. Records that large are not made by accident.
///
/// \return the names of the records taken out, largest first
QStringList LeaveOutTheLargest(ApplicationList& applications);
