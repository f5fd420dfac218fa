#include "DaemonFixture.h"

#include <QDBusInterface>
#include <QDBusReply>

using kxtest::ContentOf;
using kxtest::DaemonFixture;

namespace {

/// The interface of the object of that name, "Applications" for example.
QString InterfaceOf(const QString& object)
{
    return "com.veltrasys.kx.core." + object;
}

/// The interface element of an introspection document, comments included.
QString InterfaceElement(const QString& xml, const QString& interface)
{
    const int begin = xml.indexOf(QStringLiteral("<interface name=\"%1\">").arg(interface));
    const QString end = QStringLiteral("</interface>");
    return begin < 0 ? QString() : xml.mid(begin, xml.indexOf(end, begin) + end.size() - begin);
}

QString Introspect(const QString& object)
{
    QDBusInterface interface("com.veltrasys.kx.core", '/' + object, "org.freedesktop.DBus.Introspectable",
                             QDBusConnection::systemBus());
    return QDBusReply<QString>(interface.call("Introspect")).value();
}

/// "name kind signature result" of each member that busctl shows for the interface, in its order.
QStringList MembersShownByBusctl(const QString& object)
{
    QProcess busctl;
    busctl.start("busctl", {"--system", "--no-pager", "--no-legend", "introspect", "com.veltrasys.kx.core",
                            '/' + object, InterfaceOf(object)});
    busctl.waitForFinished(kxtest::Bound(kxtest::kPatience));
    QStringList members;
    const QStringList lines = QString::fromLocal8Bit(busctl.readAllStandardOutput()).split('\n');
    for (const QString& line : lines) {
        const QStringList columns = line.split(' ', Qt::SkipEmptyParts);
        if (columns.size() >= 4 && columns.first().startsWith('.')) {
            members.append(columns.mid(0, 4).join(' '));
        }
    }
    return members;
}

} // namespace

/// What the daemon shows of its objects to a client that knows nothing of them.
class InterfaceTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(m_daemon.Start()); }
    void HasItsMembersOnly_data();
    void HasItsMembersOnly();
    void IntrospectsAsInstalled_data();
    void IntrospectsAsInstalled();
    void CarriesBothTypeAnnotations();
    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

private:
    DaemonFixture m_daemon;
};

void InterfaceTest::HasItsMembersOnly_data()
{
    QTest::addColumn<QStringList>("members");

    QTest::newRow("Applications") << QStringList{".Enumerate method - aa{sv}", ".Restart method s -",
                                                 ".Start method a{sv} a{sv}",  ".Terminate method - -",
                                                 ".OnStarted signal a{sv} -",  ".OnTerminate signal a{sv} -"};
    QTest::newRow("System") << QStringList{".SystemCall method ia{sv} a{sv}"};
    QTest::newRow("Tools") << QStringList{".EnableAudiopayd method b -",     ".IsAudiopaydEnabled method - b",
                                          ".ResetTimeInfoSource method - i", ".SaveVariableValue method ss i",
                                          ".SetSystemTime method s i",       ".SetTimeInfo method sss i",
                                          ".SetTimeZone method s i",         ".TimeInfoChanged signal sss -"};
}

void InterfaceTest::HasItsMembersOnly()
{
    QTEST(MembersShownByBusctl(QTest::currentDataTag()), "members");
}

void InterfaceTest::IntrospectsAsInstalled_data()
{
    QTest::addColumn<bool>("documented");

    QTest::newRow("Applications") << true;
    QTest::newRow("System") << true;
    QTest::newRow("Tools") << false;
}

void InterfaceTest::IntrospectsAsInstalled()
{
    const QString object = QTest::currentDataTag();
    const QString interface = InterfaceOf(object);
    const QString installed =
        QString::fromUtf8(ContentOf(QStringLiteral("/usr/share/dbus-1/interfaces/%1.xml").arg(interface)));
    const QString element = InterfaceElement(installed, interface);
    QVERIFY(element.contains("<method "));
    QTEST(element.contains("<!--"), "documented");
    QCOMPARE(InterfaceElement(Introspect(object), interface), element);
}

void InterfaceTest::CarriesBothTypeAnnotations()
{
    // One for the result of Enumerate; for Start, request and result; for a signal, both spellings.
    const QString xml = InterfaceElement(Introspect("Applications"), InterfaceOf("Applications"));
    for (const char* name : {"com.trolltech.QtDBus.QtTypeName", "org.qtproject.QtDBus.QtTypeName"}) {
        for (const char* value : {"QVariantMap", "QList&lt;QVariantMap&gt;"}) {
            const QString annotation = QStringLiteral("<annotation name=\"%1.Out0\" value=\"%2\"/>")
                                           .arg(QLatin1String(name), QLatin1String(value));
            QVERIFY2(xml.contains(annotation), qPrintable(annotation));
        }
        QVERIFY(xml.contains(QStringLiteral("\"%1.In0\" value=\"QVariantMap\"").arg(QLatin1String(name))));
    }
}

QTEST_GUILESS_MAIN(InterfaceTest)
#include "InterfaceTest.moc"
