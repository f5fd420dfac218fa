#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <list>
#include <memory>
#include <string>

namespace com::veltrasys {
class Registry;
}
namespace core::applications {
class Server;
}

namespace core::system {

/// The object behind /System: performs privileged operations for unprivileged callers and keeps settings of
/// the system in line with keys of the registry.
///
/// Lives on the main thread; every function blocks it until it returns, shell commands included. No exception
/// leaves SystemCall. An operation's int result is 0 for success, else a shell's exit status or -1.
class Server : public QObject {
    Q_OBJECT

public:
    /// Subscribes the registry keys and brings wake-on-WLAN in line with its key.
    /// \param appsServer  stopped and started around changes of console and USB; must outlive this object
    explicit Server(core::applications::Server& appsServer, QObject* parent = nullptr);
    ~Server() override;

public slots:
    /// D-Bus: SystemCall(i, a{sv}) -> a{sv}. Performs one operation.
    ///
    /// \param methodId  a SystemCallId
    /// \param args      arguments of the operation; entries of unexpected types count as their conversion
    /// \return "return": the operation's int result, -1 for an unknown id (logged at notice level);
    ///         "response" (web server): "OK" or what went wrong; "voltage" (coin cell, on success): volts, a
    ///         double. Without "return" when the operation threw ("Unexpected exception" at error level).
    QVariantMap SystemCall(int methodId, const QVariantMap& args);

private slots:
    /// Restarts the web server and, if caching was switched off since, the browser. Logs a failing command
    /// with its status at error level.
    void OnRestartLighttpdTimer();

    /// A registry key has another value: applies it. Failures are logged at error level.
    void valueChanged(const QString& key, const QString& value);

    /// A registry key is gone: applies its default. Failures are logged at error level.
    void keyDeleted(const QString& key);

private:
    int DoReboot();
    int DoPoweroff();

    /// Starts the hardware test in the background; "url" is the page it opens at its end.
    int DoHwtest(const QVariantMap& args);
    int DoKeypadReset();

    /// Switches the console ("command": "enable" or "disable") and restarts the applications on it.
    int DoConsoleStatusChange(const QVariantMap& args);

    /// Writes "text" to the log at info level; -1 when it is empty.
    int DoLogData(const QVariantMap& args);

    /// Measures the coin cell.
    /// \param voltage  receives volts; untouched when the result is -1
    /// \return 0; -1 when the converters are missing or cannot be read
    int DoGetCoinBatteryVoltage(double& voltage);

    /// Switches "newconf", "caching" and "buffer-resp" and schedules a restart of the web server in 500 ms.
    /// \return 0
    /// \throws std::runtime_error with the text that was logged; earlier links stay changed
    int DoLighttpdRestart(const QVariantMap& args);

    /// Records the gadget settings as files and reloads the gadget modules with them, with the applications
    /// stopped meanwhile. Logs its steps at info level and failures at error level.
    /// \return 0, or 1 when a setting is invalid, a file cannot be changed or the modules do not load
    int DoConfigureUSBGadget(const QVariantMap& args);

    /// \return 0, or the status of the command that failed
    int reloadGadgetUsbModules(bool serial);

    /// \return the statuses of all commands, combined by bitwise or
    int stopUsbModules(bool serial);
    int startModule(const char* name, const char* params);

    /// \return 0 when the ethernet gadget is loaded, 1 when the serial one is, else -1
    int checkActiveGadgetUsbModules();

    /// \return generation of the secure daemon that runs, 1 to 3; 0 when none does
    int DoGetL2KernelsVersion();

    /// Stores "number", 1 to 3, as the wanted generation and restarts the secure daemon if it is another.
    /// \return 0, or -1 after a failure, which is logged at error level
    int DoSetL2KernelsVersion(const QVariantMap& args);

    /// Writes the hub identifier, unless the system is not in its apply mode.
    /// \throws std::runtime_error with the text for the log
    void ReplaceHubID(const QString& hubID);

    /// \return index of the wireless PHY, -1 when there is none
    int GetWiphyIndex();
    bool IsMurataWifiChip();

    /// Enables wake-on-WLAN by magic packet, or disables it. Logs failures at error level.
    void SetWifiWowlanParam(bool enable);

    /// \return enabled triggers in the order of the listing; empty on any error
    std::list<std::string> GetWowlanFeaturesList();

    /// On the Murata module, wake-on-WLAN without magic packet among its triggers is switched off and counts
    /// as 0.
    ///
    /// \return 1 when wake-on-WLAN is enabled, else 0
    int CheckWifiWowlanStatus();

    /// On a terminal with Wi-Fi, subscribes the wake-on-magic key and applies it (default: enabled).
    void CheckAndAlignWowlanFeatureStatus();

    bool m_cachingDisabled = false;
    bool m_bufferRespDisabled = false;
    core::applications::Server& m_appsServer;
    std::shared_ptr<com::veltrasys::Registry> m_registry;
    bool m_isMurataWifiChip = false;
};

} // namespace core::system
