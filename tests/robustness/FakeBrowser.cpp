#include "FakeBrowser.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>

namespace kxtest {
namespace {

const char* const kConnection = "browser";

constexpr auto kPolicy = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <policy user="root">
    <allow own="com.veltrasys.browser"/>
    <allow send_destination="com.veltrasys.browser"/>
  </policy>
</busconfig>
)";

} // namespace

FakeBrowser::FakeBrowser()
    : m_bus(QDBusConnection::connectToBus(QDBusConnection::SystemBus, QString::fromLatin1(kConnection)))
{
    const QString folder = QStringLiteral("/etc/dbus-1/system.d");
    QDir().mkpath(folder);
    QFile policy(folder + QStringLiteral("/com.veltrasys.browser.conf"));
    if (!policy.open(QIODevice::WriteOnly) || policy.write(kPolicy) < 0) {
        qFatal("cannot write the browser's policy");
    }
    policy.close();
    m_bus.interface()->call(QStringLiteral("ReloadConfig"));
    m_bus.registerObject(QStringLiteral("/"), this,
                         QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals);
}

FakeBrowser::~FakeBrowser()
{
    QDBusConnection::disconnectFromBus(QString::fromLatin1(kConnection));
}

bool FakeBrowser::Come()
{
    return m_bus.registerService(QStringLiteral("com.veltrasys.browser"));
}

void FakeBrowser::Go()
{
    m_bus.unregisterService(QStringLiteral("com.veltrasys.browser"));
}

int FakeBrowser::ShowPage(const QString& path)
{
    m_pages.append(path);
    return 0;
}

} // namespace kxtest
