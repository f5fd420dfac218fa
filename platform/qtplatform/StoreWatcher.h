#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QTimer>

namespace com::veltrasys::registry {

/// Tells when a store may have changed, by whatever process and in whatever way: replaced, edited in place,
/// removed, or created together with its folder.
class StoreWatcher : public QObject {
    Q_OBJECT

public:
    /// Watches from the construction on.
    /// \param path  absolute path of the store, which need not exist
    explicit StoreWatcher(QString path, QObject* parent = nullptr);

signals:
    /// The store may be another one. Comes from the event loop, once for notices that come together.
    void Changed();

private:
    void Rearm();
    void OnSettled();

    const QString m_path;
    QFileSystemWatcher m_watcher;
    QTimer m_settled;
};

} // namespace com::veltrasys::registry
