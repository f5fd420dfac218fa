#pragma once

#include <QFile>
#include <QFileSystemWatcher>
#include <QObject>
#include <QStringList>

// Follows the terminal's log, /var/log/messages, from its beginning.
class LogTail : public QObject {
    Q_OBJECT

public:
    explicit LogTail(QObject* parent = nullptr);

    // All lines so far.
    const QStringList& Lines() const { return m_lines; }

signals:
    // A line, without its end.
    void Appended(const QString& line);

private:
    void ReadOn();

    QFile m_file;
    QFileSystemWatcher m_watcher;
    QByteArray m_incomplete;
    QStringList m_lines;
};
