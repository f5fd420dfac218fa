#pragma once

#include "ApplicationsProxy.h"
#include "server/dbus/ApplicationList.h"

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <QVector>
#include <QtTest>

#include <sys/types.h>

/// Helpers for tests that drive the real daemon. They work in the private root only: a program that links
/// them ends at once when it is started elsewhere.
namespace kxtest {

/// \return \a milliseconds times the factor in the environment variable KX_TIME_FACTOR (slow machines,
///         emulation); 1 when it is not set
int Bound(int milliseconds);

constexpr int kPatience = 10000; ///< for what takes milliseconds on an idle machine

/// Runs the event loop until \a condition holds.
/// \return false when it does not hold within the scaled bound
template<typename Condition>
bool WaitFor(Condition condition, int milliseconds = kPatience)
{
    return QTest::qWaitFor(condition, Bound(milliseconds));
}

/// Fail the test unless the expression becomes true, or equal, within the usual bound.
#define KX_TRY_VERIFY(expression) QTRY_VERIFY_WITH_TIMEOUT(expression, kxtest::Bound(kxtest::kPatience))
#define KX_TRY_COMPARE(actual, expected)                                                                     \
    QTRY_COMPARE_WITH_TIMEOUT(actual, expected, kxtest::Bound(kxtest::kPatience))

/// One line of the system's log.
struct LogRecord {
    QString priority; ///< as the log names it: "err", "info", ...
    QString program;
    QString file; ///< file, function and line are empty and 0 for a record without a prefix
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

/// \return the content of a file; empty when it cannot be read
QByteArray ContentOf(const QString& path);

/// Creates or replaces /home/<name> with all its files, owned by \a uid and \a gid. No app.conf is written
/// when its text is empty.
/// \return the home directory
QString InstallApplication(const QString& name, unsigned uid, unsigned gid,
                           const QByteArray& appConf = QByteArray(), const QVector<HomeFile>& files = {});

/// Removes everything below /home.
void RemoveApplications();

/// A program for an application's home that does nothing for as many seconds as its first parameter says.
HomeFile IdleProgram(const QString& path = QStringLiteral("bin/idle"));

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
    void SetEnvironment(const QString& name, const QString& value);

    /// Loads a library into daemons started from now on, before all others.
    void Preload(const QString& library);

    /// Makes a library call fail in daemons started from now on; see FaultInjection.cpp for the names.
    void InjectFault(const QString& fault);

    /// Starts the daemon in "/" and returns when it runs; Records() begins here.
    bool Launch(const QStringList& arguments);

    /// Starts the daemon and waits until it serves calls.
    /// \return false when it ended first or did not get there within the bound
    bool Start(const QStringList& arguments = {QStringLiteral("--no-daemon")});

    /// Waits until the event loop of the daemon answers on the bus, which is after its boot sequence.
    bool WaitUntilServing();

    /// Makes this process the parent of what the daemon leaves behind.
    /// \return false when the machine cannot do that (an emulator)
    static bool AdoptsOrphans();

    /// Starts a daemon that detaches itself and takes it over, so that Pid, Signal and WaitForExit work on
    /// it; see AdoptsOrphans. \return false when nothing detached or the program that was started did not
    /// end with status 0
    bool LaunchDetached(const QStringList& arguments);

    void Signal(int signo) const;

    /// \return the exit status; 1000 plus the number of the signal that ended the daemon; -1 when it still
    ///         runs after the bound
    int WaitForExit(int milliseconds = kPatience);

    /// Asks the daemon to end (SIGTERM) and waits.
    /// \return as WaitForExit
    int Stop();

    bool IsRunning() const;
    pid_t Pid() const { return m_pid; }

    /// \return what the daemon wrote to standard output
    QByteArray Output() { return m_process.readAllStandardOutput(); }

    static bool IsBusRunning();

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
    bool m_detached = false;
    qint64 m_logMark = 0;
    ApplicationsProxy m_applications;
};

} // namespace kxtest
