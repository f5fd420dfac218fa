// Values that travel over the bus: an application's record, and pairs of strings.
#include "server/applications/appconf/ApplicationConfig.h"
#include "server/dbus/VectorOfPairSS.h"

#include "WebBrowserProxy.h"

#include <QtTest>

using core::configuration::ApplicationConfig;

namespace {

/// A browser, which sees values as they arrive from another process.
class Browser : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Server")

public:
    QDBusMessage m_call; ///< the last one

public slots:
    void ShowPage(const QDBusMessage& call)
    {
        m_call = call;
        QDBusConnection("browser").send(call.createReply(0));
    }
};

/// A record in which every field has a value of its own.
QVariantMap Filled()
{
    const QVariantMap item{{"form", "f"}, {"iconPath", "i"}, {"iconPosition", -1}, {"title", "%1"}};
    QVariantMap map = ApplicationConfig("pay");
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        *entry = entry.key() + " text";
    }
    map["uid"] = 4002U;
    map["gid"] = 4003U;
    map["fastCgi"] = map["cgiBinDefault"] = true;
    map["desktopItems"] = QVariantList{item, item};
    map["configPages"] = QVariantList{item};
    return map;
}

QVariantMap WithoutCertificate(QVariantMap map)
{
    map["cacertPath"] = QString();
    return map;
}

} // namespace

class ValuesTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QDir().mkpath("/etc/dbus-1/system.d");
        QFile policy("/etc/dbus-1/system.d/test.conf");
        QVERIFY(policy.open(QIODevice::WriteOnly));
        policy.write("<busconfig><policy user='root'><allow send_destination='*'/></policy></busconfig>");
        policy.close();
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, "browser");
        bus.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                                "ReloadConfig"));
        QVERIFY(bus.registerObject("/", &m_browser, QDBusConnection::ExportAllSlots));
    }

    void RecordsAreReadFromMaps()
    {
        const auto received = Received(Filled());
        QCOMPARE(received.size(), 23);
        QCOMPARE(QVariantMap(ApplicationConfig(received)), WithoutCertificate(Filled()));
        const ApplicationConfig wrong(
            QVariantMap{{"uid", "abc"}, {"name", 5}, {"desktopItems", QVariantList{1}}});
        QCOMPARE(wrong.m_uid + wrong.m_gid + wrong.m_desktopItems.size(), 0U);
        QCOMPARE(wrong.m_name, "5");
        QCOMPARE(ApplicationConfig("pay").m_uid, 4294967295U);
    }

    void CopiesDropTheCertificateAndMovesKeepIt()
    {
        ApplicationConfig record(Received(Filled()));
        record.m_cacertPath = "ca";
        const QVariantMap original = record;
        ApplicationConfig assigned("other");
        assigned.m_cacertPath = "other";
        assigned = record;
        QCOMPARE(QVariantMap(ApplicationConfig(record)), WithoutCertificate(original));
        QCOMPARE(QVariantMap(assigned), WithoutCertificate(original));
        ApplicationConfig moved(std::move(record));
        QCOMPARE(QVariantMap(moved), original);
        assigned = std::move(moved);
        QCOMPARE(QVariantMap(assigned), original);
    }

    void PairsKeepOrderAndDuplicates()
    {
        RegisterVectorOfPairSS();
        QVERIFY(QMetaType::type("QVectorOfPairSS") != QMetaType::UnknownType);
        WebBrowserProxy proxy(QDBusConnection("browser").baseService(), "/", QDBusConnection::systemBus(),
                              nullptr);
        for (const QVectorOfPairSS& pairs : {QVectorOfPairSS(), {{"z", ""}, {"a", "\u00e4"}, {"z", "%1"}}}) {
            QDBusPendingReply<int> reply = proxy.ShowPage("page", pairs);
            QTRY_VERIFY(reply.isFinished());
            QVERIFY2(reply.isValid(), qPrintable(reply.error().message()));
            QCOMPARE(m_browser.m_call.signature(), "sa{ss}");
            QCOMPARE(qdbus_cast<QVectorOfPairSS>(m_browser.m_call.arguments().value(1)), pairs);
        }
    }

private:
    QVariantMap Received(const QVariantMap& map) const
    {
        auto call =
            QDBusMessage::createMethodCall(QDBusConnection("browser").baseService(), "/", "", "ShowPage");
        QDBusConnection::systemBus().call(call << map, QDBus::BlockWithGui);
        return qdbus_cast<QVariantMap>(m_browser.m_call.arguments().value(0));
    }

    Browser m_browser;
};

QTEST_GUILESS_MAIN(ValuesTest)
#include "tst_values.moc"
