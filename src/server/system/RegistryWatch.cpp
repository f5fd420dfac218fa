#include "server/system/Server.h"

#include "misc/Log.h"
#include "server/system/Files.h"
#include "server/system/RegistryKeys.h"

#include <Registry.h>

#include <QRegExp>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";
constexpr auto kSyslogDirectory = "/etc/sysconfig";
constexpr auto kSyslogFile = "/etc/sysconfig/syslog";
constexpr mode_t kSyslogDirectoryMode = 0775;

/// IPv4 address in dotted decimal, a colon and a port.
constexpr auto kTargetPattern = "^(([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5])\\.){3}"
                                "([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5]):[0-9]+$";

/// Part of the value that the registry reports when it cannot read the key.
constexpr auto kReadFailure = "Error:";

} // namespace

void Server::valueChanged(const QString& key, const QString& value)
{
    if (key == kSyslogKey && !value.contains(kReadFailure)) {
        QString target = value;
        if (!target.isEmpty() && QRegExp(kTargetPattern).indexIn(target) == -1) {
            qError() << KX_PREFIX(kSource)
                     << "!!!Attempt to set incorrect ip-address or port for logging to remote host: "
                     << target;
            m_registry->setValue(kSyslogKey, "");
            target.clear();
        }
        if (!Exists(kSyslogDirectory) && mkdir(kSyslogDirectory, kSyslogDirectoryMode) != 0) {
            const char* const reason = std::strerror(errno);
            qError() << KX_PREFIX(kSource) << "could not create directory /etc/sysconfig : " << reason;
            return;
        }
        try {
            const QString options = target.isEmpty() ? QString() : " -L -R " + target;
            const QString line = "SYSLOGD_OPTIONS=\"" + options + "\"\n";
            WriteToConfigFileAndRestart(kSyslogFile, line.toUtf8().constData());
        } catch (const std::exception& error) {
            qError() << KX_PREFIX(kSource) << error.what();
        }
    }
    if (key.compare(kHubIdKey, Qt::CaseInsensitive) == 0 && !value.contains(kReadFailure)) {
        try {
            ReplaceHubID(value);
        } catch (const std::exception& error) {
            qError() << KX_PREFIX(kSource) << error.what();
        }
    }
    if (key == kWakeOnMagicKey) {
        try {
            if (value != "1" && value != "0") {
                m_registry->deleteKey(kWakeOnMagicKey);
                throw std::invalid_argument(
                    "Incorrect value for %network.wifi.phy.wakeup_on_magic key: " + value.toStdString() +
                    ". The key will be deleted. WoWlan feature status will be changed to default.");
            }
            SetWifiWowlanParam(value == "1");
        } catch (const std::exception& error) {
            qError() << KX_PREFIX(kSource) << error.what();
        }
    }
}

void Server::keyDeleted(const QString& key)
{
    if (key == kSyslogKey && Exists(kSyslogFile)) {
        try {
            WriteToConfigFileAndRestart(kSyslogFile, "SYSLOGD_OPTIONS=\"\"\n");
        } catch (const std::exception& error) {
            qError() << KX_PREFIX(kSource) << error.what();
        }
    }
    if (key == kWakeOnMagicKey) {
        SetWifiWowlanParam(true);
    }
}

void Server::ReplaceHubID(const QString& hubID)
{
    const QString mode = m_registry->getValue(kModeKey).toString();
    if (mode.compare("Apply Mode", Qt::CaseInsensitive) == 0) {
        WriteFile(kHubIdFile, hubID.toUtf8());
    }
}

} // namespace core::system
