#pragma once

#include "Screen.h"
#include "Terminal.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QTimer>

// Follows a developer's application directory: on a change the applications are ended, the directory is
// installed again and everything is started. Reports what "kxctl check" finds in it, at first and after each
// change. Does nothing when there is no directory.
class AppWatch : public QObject {
    Q_OBJECT

public:
    AppWatch(QString directory, Terminal& terminal, Screen& screen);

private:
    void Watch();
    void Check();
    void Reinstall();

    const QString m_directory;
    Terminal& m_terminal;
    Screen& m_screen;
    QFileSystemWatcher m_watcher;
    // One change of a program touches many files.
    QTimer m_settled;
};
