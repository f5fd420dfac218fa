#pragma once

#include "BusClient.h"
#include "DaemonFixture.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace torture {

/// What an attack may not change.
struct Vitals {
    std::string connection; ///< of the daemon on the bus; another one would be another daemon
    int descriptors = 0;
    int threads = 0;
    long residentKilobytes = 0;
};

/// The daemon under attack, with applications installed.
class Patient {
public:
    /// Installs the applications; starts nothing.
    Patient();

    /// Starts the daemon, waits until it serves calls and notes what it holds.
    /// \return false when it does not get there
    bool Start();

    /// \return the exit status, as DaemonFixture::Stop
    int Stop() { return m_daemon->Stop(); }

    /// Ends the daemon where it stands.
    void Kill();

    /// Has the next daemons run with another library preloaded; none when empty.
    void Preload(const QString& library) { m_preload = library; }

    /// Looks, for some seconds if need be, whether the daemon is as it was when it was started: the same
    /// process on the same connection, with as many descriptors and threads, no children and no application
    /// processes, memory within bounds, and every normal call answered right. \return what is not; empty when
    /// all is well
    QStringList Complaints();

    kxtest::DaemonFixture& Daemon() { return *m_daemon; }
    Vitals Measure() const;

private:
    bool WaitUntilServing() const;
    QStringList Differences(bool& settled) const;

    std::unique_ptr<kxtest::DaemonFixture> m_daemon;
    QString m_preload;
    Vitals m_before;
};

/// \return the processes of application accounts, ended ones not among them
QVector<pid_t> ApplicationProcesses();

} // namespace torture
