#pragma once

#include "server/dbus/ApplicationList.h"

#include <QStringList>
#include <QVariantMap>
#include <QtGlobal>

#include <vector>

/// Gathers what Enumerate answers, and keeps it to what the bus carries: it drops the connection of who sends
/// more than 32 MiB, and with it the daemon. Records that large are not made by accident.
class ApplicationReply {
public:
    void Append(const QVariantMap& application);

    /// Takes the largest records out until the bus carries the rest.
    /// \return the names of the records taken out, largest first
    QStringList LeaveOutTheLargest();

    const ApplicationList& List() const { return m_list; }

private:
    ApplicationList m_list;
    std::vector<qint64> m_sizes; ///< of the records in m_list, in bytes, found while they are at hand
};
