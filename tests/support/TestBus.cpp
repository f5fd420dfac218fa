#include "TestBus.h"

#include "Files.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include <utility>

namespace {

constexpr auto kPolicy = R"(<busconfig><policy user="root">
<allow own="*"/><allow send_destination="*"/>
</policy></busconfig>)";

QDBusConnection Connection()
{
    return QDBusConnection::connectToBus(QDBusConnection::SystemBus, "peer");
}

QDBusMessage CallBus(const QDBusConnection& connection, const char* method)
{
    return connection.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                          "org.freedesktop.DBus",
                                                          QString::fromLatin1(method)));
}

} // namespace

void OpenBus()
{
    WriteFile("/etc/dbus-1/system.d/test.conf", kPolicy);
    CallBus(Connection(), "ReloadConfig");
}

Echo::Echo()
{
    Connection().registerObject("/echo", this, QDBusConnection::ExportAllSlots);
}

Echo::~Echo()
{
    Connection().unregisterObject("/echo");
}

QDBusMessage Echo::Call(const QVariant& value)
{
    auto call = QDBusMessage::createMethodCall(Connection().baseService(), "/echo", "test.Echo", "Repeat");
    return QDBusConnection::systemBus().call(call << value, QDBus::BlockWithGui);
}

void Echo::Repeat(const QDBusMessage& call)
{
    Connection().send(call.createReply(call.arguments()));
}

FakeBrowser::FakeBrowser()
{
    Connection().registerObject("/", this,
                                QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals);
}

FakeBrowser::~FakeBrowser()
{
    Vanish();
    QDBusConnection::disconnectFromBus("peer");
}

bool FakeBrowser::Appear()
{
    return Connection().registerService("com.veltrasys.browser");
}

bool FakeBrowser::Vanish()
{
    return Connection().unregisterService("com.veltrasys.browser");
}

QStringList FakeBrowser::TakePages()
{
    // The bus keeps the order of messages: with the answer to a call, what was sent before has arrived. Of
    // the rounds one lets connections that are new begin to dispatch, one lets the daemon's code see a name
    // come or go, one lets it act on what is queued, and one brings here what it sends.
    constexpr int kRounds = 4;
    for (int round = 0; round < kRounds; ++round) {
        CallBus(QDBusConnection::systemBus(), "GetId");
        CallBus(Connection(), "GetId");
        QCoreApplication::processEvents();
    }
    return std::exchange(m_pages, {});
}

int FakeBrowser::ShowPage(const QString& path)
{
    m_pages.append(path);
    return 0;
}
