#pragma once

#include <QObject>

/// Restarts the terminal when the system bus is lost, since no component can reach another without it.
/// Main thread only.
class DBusMonitor : public QObject {
    Q_OBJECT

public:
    /// Subscribes to the loss of the connection. Logs "Failed to create connection for dbus monitor" at error
    /// level if that fails; the daemon then runs on without a monitor.
    DBusMonitor();

    /// \return whether a restart may happen now: no update is in progress and both package databases could be
    ///         locked. The locks stay held, so that no installation starts before the restart.
    static bool CheckIfAllowedToReboot();

    /// Appends a record with the user "poweroff" to the login accounting file /tmp/wtmp, creating the file
    /// (0644) when it is missing. A failure is ignored; something other than a regular file counts as one.
    static void SavePoweroffRecord();

public slots:
    /// The bus daemon is gone: unless software is being updated, shows the maintenance picture, writes the
    /// power-off record and has the terminal reboot in five seconds. Logs each decision at emergency level.
    void DBusDied();
};
