#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/system/RegistryKeys.h"
#include "server/system/Report.h"
#include "server/system/Server.h"
#include "server/system/SmallFile.h"

#include <Registry.h>

#include <QByteArray>
#include <QRegExp>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";
constexpr auto kSyslogFile = "/etc/sysconfig/syslog";
constexpr mode_t kConfigDirectoryMode = 0775;

/// How the registry reports that it could not read a value.
bool IsReadFailure(const QString& value)
{
    return value.contains(QLatin1String("Error:"));
}

/// \return whether \a target is an IPv4 address in dotted decimal, a colon and a port
bool IsSyslogTarget(const QString& target)
{
    const QRegExp pattern(QStringLiteral("^(([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5])\\.){3}"
                                         "([0-9]|[1-9][0-9]|1[0-9]{2}|2[0-4][0-9]|25[0-5]):[0-9]+$"));
    return pattern.indexIn(target) >= 0;
}

QByteArray SyslogOptions(const QString& target)
{
    QByteArray line = "SYSLOGD_OPTIONS=\"";
    if (!target.isEmpty()) {
        line += " -L -R " + target.toUtf8();
    }
    return line + "\"\n";
}

} // namespace

void Server::valueChanged(const QString& key, const QString& value)
{
    if (key == kSyslogKey && !IsReadFailure(value)) {
        SetSyslogTarget(value);
    }
    if (key.compare(kHubIdKey, Qt::CaseInsensitive) == 0 && !IsReadFailure(value)) {
        Attempt(__func__, [&] { ReplaceHubID(value); });
    }
    if (key == kWakeOnMagicKey) {
        Attempt(__func__, [&] { ApplyWakeOnMagic(value); });
    }
}

void Server::keyDeleted(const QString& key)
{
    if (key == kSyslogKey && Exists(kSyslogFile)) {
        Attempt(__func__,
                [] { WriteToConfigFileAndRestart(kSyslogFile, SyslogOptions(QString()).constData()); });
    }
    if (key == kWakeOnMagicKey) {
        SetWifiWowlanParam(true);
    }
}

void Server::SetSyslogTarget(const QString& target)
{
    QString accepted = target;
    if (!target.isEmpty() && !IsSyslogTarget(target)) {
        qError() << KX_PREFIX_AS(kSource, "valueChanged")
                 << "!!!Attempt to set incorrect ip-address or port for logging to remote host: "
                 << Misc::Excerpt(target);
        m_registry->setValue(kSyslogKey, QString::fromLatin1(""));
        accepted.clear();
    }
    if (!Exists("/etc/sysconfig") && mkdir("/etc/sysconfig", kConfigDirectoryMode) != 0) {
        const char* const reason = std::strerror(errno);
        qError() << KX_PREFIX_AS(kSource, "valueChanged")
                 << "could not create directory /etc/sysconfig : " << reason;
        return;
    }
    Attempt("valueChanged",
            [&] { WriteToConfigFileAndRestart(kSyslogFile, SyslogOptions(accepted).constData()); });
}

void Server::ReplaceHubID(const QString& hubID)
{
    const QString mode = m_registry->getValue(kModeKey).toString();
    if (mode.compare(QLatin1String("Apply Mode"), Qt::CaseInsensitive) == 0) {
        WriteFile(kHubIdFile, hubID.toUtf8(), kConfigFileMode);
    }
}

void Server::ApplyWakeOnMagic(const QString& value)
{
    if (value == QLatin1String("1") || value == QLatin1String("0")) {
        SetWifiWowlanParam(value == QLatin1String("1"));
        return;
    }
    m_registry->deleteKey(kWakeOnMagicKey);
    throw std::invalid_argument(
        "Incorrect value for %network.wifi.phy.wakeup_on_magic key: " + ExcerptOf(value) +
        ". The key will be deleted. WoWlan feature status will be changed to default.");
}

void WriteToConfigFileAndRestart(const char* path, const char* text)
{
    WriteFile(path, text, kConfigFileMode);
    if (Misc::ExecShell("/etc/rc.d/init.d/syslog restart") != 0) {
        throw std::runtime_error(std::string("syslogd restarting returns error: ") + std::strerror(errno));
    }
}

} // namespace core::system
