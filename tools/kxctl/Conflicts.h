#pragma once

#include <QMap>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

namespace kxctl {

/// Finds what is wrong with applications only beside each other.
///
/// \param applications  "name", "showOnBoot" and "cgiBinDefault" of each, as Enumerate has them
/// \return for the names of those concerned, what is wrong
QMap<QString, QStringList> FindConflicts(const QVector<QVariantMap>& applications);

/// \return the application whose form is the terminal's default, as the daemon chooses it; empty for none
QString DefaultApplication();

} // namespace kxctl
