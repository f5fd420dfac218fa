#pragma once

#include "StoreText.h"

#include <QString>
#include <QVector>

#include <optional>
#include <utility>

#include <sys/types.h>

namespace com::veltrasys::registry {

/// What happens to one key: a new value, or none when it is deleted.
struct Change {
    QString key;
    std::optional<QString> value;
};

/// \return what turns \a before into \a after: the deletions, then the new values, each sorted by key
QVector<Change> Differences(const Entries& before, const Entries& after);

/// Where the store is and who may read it.
struct Location {
    QString path;
    /// Permission bits to give the file at every change; none: those that it has, 0600 for a new one.
    std::optional<mode_t> mode;
    /// Why the configuration cannot be followed; empty when it can. No access is made otherwise.
    QString error;
};

/// \return the location that /etc/kxregistry.conf sets, else /var/lib/kxregistry/registry.ini; read once for
///         the life of the process
const Location& ConfiguredLocation();

/// The registry's file. Reading takes no lock, since the file is only ever replaced whole. All functions may
/// be called from any thread.
class Store {
public:
    explicit Store(Location location = ConfiguredLocation()) : m_location(std::move(location)) {}

    const QString& Path() const { return m_location.path; }

    /// \return the content; empty when there is no file yet; an error that names the file and the reason when
    ///         it is no plain file, cannot be opened or holds something else than entries
    Content Read() const;

    /// Makes \a change, waiting as long as another process makes one. A store that cannot be read is left
    /// alone, as is one to which \a change would make no difference. A missing folder is created.
    /// \return why the change was not made; empty when the store is now as wanted
    QString Apply(const Change& change) const;

private:
    Location m_location;
};

} // namespace com::veltrasys::registry
