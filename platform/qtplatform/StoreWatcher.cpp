#include "StoreWatcher.h"

#include <QFileInfo>
#include <QStringList>

#include <utility>

namespace com::veltrasys::registry {

namespace {

QString NearestExistingFolder(const QString& path)
{
    QString folder = QFileInfo(path).path();
    while (!QFileInfo(folder).isDir() && folder != "/") {
        folder = QFileInfo(folder).path();
    }
    return folder;
}

/// The file for edits in place, the folder for replacement and creation, the folder above for the removal of
/// a folder that somebody is still in.
QStringList PathsToWatch(const QString& path)
{
    const QString folder = NearestExistingFolder(path);
    QStringList paths{folder, QFileInfo(folder).path()};
    paths.removeDuplicates();
    if (QFileInfo::exists(path)) {
        paths.append(path);
    }
    return paths;
}

} // namespace

StoreWatcher::StoreWatcher(QString path, QObject* parent)
    : QObject(parent), m_path(std::move(path)), m_watcher(this), m_settled(this)
{
    m_settled.setSingleShot(true);
    connect(&m_settled, &QTimer::timeout, this, &StoreWatcher::OnSettled);
    const auto settle = [this] { m_settled.start(); };
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, settle);
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, settle);
    Rearm();
}

void StoreWatcher::Rearm()
{
    // A path stands for the inode it had when it was added, and a replaced file lives on for as long as
    // somebody has it open; so every path is added anew. A folder made meanwhile takes another round.
    QStringList paths = PathsToWatch(m_path);
    QStringList watched;
    do {
        const QStringList old = m_watcher.files() + m_watcher.directories();
        if (!old.isEmpty()) {
            m_watcher.removePaths(old);
        }
        m_watcher.addPaths(paths);
        watched = std::exchange(paths, PathsToWatch(m_path));
    } while (watched != paths);
}

void StoreWatcher::OnSettled()
{
    // First the watch, then the reading that Changed leads to: a change in between is seen twice, not never.
    Rearm();
    emit Changed();
}

} // namespace com::veltrasys::registry
