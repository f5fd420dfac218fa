#pragma once

#include <QList>
#include <QMetaType>
#include <QVariantMap>

/// What Enumerate returns: one map per application. D-Bus signature aa{sv}.
using ApplicationList = QList<QVariantMap>;

/// Registers the type's marshalling. Safe to call repeatedly; a process calls it before it serves or calls
/// Enumerate. Without it the reply would carry no value at all.
void RegisterApplicationList();
