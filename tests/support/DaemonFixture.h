#pragma once

#include "ApplicationsProxy.h"
#include "Files.h"
#include "Patience.h"
#include "Processes.h"
#include "Table.h"
#include "server/dbus/ApplicationList.h"

#include <QDBusConnection>

#include <QtTest>

#include <sys/types.h>

#include <csignal>

/// Helpers for tests that drive the real daemon. They work in the private root only: a program that links
/// them ends at once when it is started elsewhere.
namespace kxtest {

/// One line of the system's log.
struct LogRecord {
    QString priority; ///< as the log names it: "err", "info", ...
    QString file;     ///< file, function and line are empty and 0 for a record without a prefix
    QString function;
    int line = 0;
    QString text;
};

/// \return the current end of the log, for LogSince
qint64 LogMark();

/// \return the daemon's records that came after \a mark, in order
QVector<LogRecord> LogSince(qint64 mark);

/// A file of an application's home directory.
struct HomeFile {
    QString path; ///< relative to the home directory
    QByteArray content;
    unsigned mode = 0644;
};

/// Creates or replaces /home/<name> with all its files, owned by \a uid and \a gid. No app.conf is written
/// when its text is empty.
/// \return the home directory
QString InstallApplication(const QString& name, unsigned uid, unsigned gid,
                           const QByteArray& appConf = QByteArray(), const QVector<HomeFile>& files = {});

/// Removes everything below /home.
void RemoveApplications();

/// A program for an application's home that does nothing for as many seconds as its first parameter says.
HomeFile IdleProgram(const QString& path = "bin/idle");

/// A shell script for an application's home.
HomeFile Script(const QString& path, const QByteArray& commands);

/// \return what the platform's programs were called with, one "name arguments" each, in order
QStringList PlatformCalls();

/// \return the processes whose first argument is \a program, ended ones not among them
QVector<pid_t> ProcessesOf(const QString& program);

/// \return the processes whose parent is \a parent, with their state as /proc names it
QVector<QPair<pid_t, char>> ChildrenOf(pid_t parent);

/// The daemon as a test sees it: a program to start and stop, and a service to call.
class DaemonFixture {
public:
    DaemonFixture();

    /// Kills the daemon when the test left it running.
    ~DaemonFixture();
    DaemonFixture(const DaemonFixture&) = delete;
    DaemonFixture& operator=(const DaemonFixture&) = delete;

    /// Sets a variable for daemons started from now on.
    void SetEnvironment(const QString& name, const QString& value) { m_environment.insert(name, value); }

    /// Loads a library into daemons started from now on, before all others.
    void Preload(const QString& library);

    /// Makes a library call fail in daemons started from now on; see FaultInjection.cpp for the names.
    void InjectFault(const QString& fault);

    /// Starts the daemon in "/" and returns when it runs; Records() begins here.
    bool Launch(const QStringList& arguments);

    /// Starts the daemon and waits until it serves calls.
    /// \return false when it ended first or did not get there within the bound
    bool Start(const QStringList& arguments = {"--no-daemon"})
    {
        return Launch(arguments) && WaitUntilServing();
    }

    /// Waits until the event loop of the daemon answers on the bus, which is after its boot sequence.
    bool WaitUntilServing();

    void Signal(int signo) const;

    /// \return the exit status; 1000 plus the number of the signal
    ///         that ended it; -1 when it still runs after the bound
    int WaitForExit(int milliseconds = kPatience);

    /// Asks the daemon to end (SIGTERM) and waits.
    /// \return as WaitForExit
    int Stop()
    {
        Signal(SIGTERM);
        return WaitForExit();
    }

    bool IsRunning() const;
    pid_t Pid() const { return m_pid; }
    int OpenDescriptors() const;

    /// \return what the daemon wrote to standard output
    QByteArray Output() { return m_process.readAllStandardOutput(); }

    static bool IsBusRunning() { return QDBusConnection::systemBus().isConnected(); }

    /// \return whether any process owns the daemon's name on the bus
    static bool IsNameOwned();

    /// \return the daemon's records since it was started
    QVector<LogRecord> Records() const { return LogSince(m_logMark); }

    /// Waits for a record that contains \a text.
    /// \return it, or a record without text
    LogRecord WaitForRecord(const QString& text) const;

    ApplicationsProxy& Applications() { return m_applications; }

    /// Calls Start and waits for the answer. A D-Bus error is an entry "error" of the result.
    QVariantMap StartRequest(const QVariantMap& request);

    /// Calls Enumerate and waits for the answer.
    ApplicationList Enumerate();

private:
    QProcess m_process;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
    pid_t m_pid = 0;
    qint64 m_logMark = 0;
    ApplicationsProxy m_applications;
};

} // namespace kxtest
