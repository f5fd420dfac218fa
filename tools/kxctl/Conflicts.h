#pragma once

#include <QString>
#include <QVariantMap>
#include <QVector>

namespace kxctl {

/// Finds what is wrong with applications only beside each other.
///
/// \param applications  "name", "showOnBoot" and "cgiBinDefault" of each, as Enumerate has them
/// \return for the name of each concerned, the texts of what is wrong
QVariantMap FindConflicts(const QVector<QVariantMap>& applications);

/// \return the application whose form is the terminal's default, as the daemon chooses it; "" for none, null
///         when this account may not look
QVariant DefaultApplication();

} // namespace kxctl
