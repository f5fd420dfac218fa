#include "LogTail.h"

#include <QTimer>

LogTail::LogTail(QObject* parent) : QObject(parent), m_file(QStringLiteral("/var/log/messages"))
{
    if (m_file.open(QIODevice::ReadOnly)) {
        m_watcher.addPath(m_file.fileName());
        connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, &LogTail::ReadOn);
    }
    // What is there already is reported once somebody can have connected.
    QTimer::singleShot(0, this, &LogTail::ReadOn);
}

void LogTail::ReadOn()
{
    m_incomplete += m_file.readAll();
    for (int end = m_incomplete.indexOf('\n'); end >= 0; end = m_incomplete.indexOf('\n')) {
        m_lines.append(QString::fromUtf8(m_incomplete.left(end)));
        m_incomplete.remove(0, end + 1);
        emit Appended(m_lines.last());
    }
}
