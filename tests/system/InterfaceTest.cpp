#include "CommandRun.h"
#include "DaemonFixture.h"

#include <QDBusInterface>
#include <QDBusReply>

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
    const auto busctl =
        kxtest::RunCommand("busctl", {"--system", "--no-pager", "--no-legend", "introspect",
                                      "com.veltrasys.kx.core", '/' + object, InterfaceOf(object)});
    QStringList members;
    for (const QString& line : busctl.out.split('\n')) {
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

    void HasItsMembersOnly_data()
    {
        const Table<bool, QStringList> row; // whether its methods are described, and what it has
        row("Applications", true,
            {".Enumerate method - aa{sv}", ".Restart method s -", ".Start method a{sv} a{sv}",
             ".Terminate method - -", ".OnStarted signal a{sv} -", ".OnTerminate signal a{sv} -"});
        row("System", true, {".SystemCall method ia{sv} a{sv}"});
        row("Tools", false,
            {".EnableAudiopayd method b -", ".IsAudiopaydEnabled method - b",
             ".ResetTimeInfoSource method - i", ".SaveVariableValue method ss i", ".SetSystemTime method s i",
             ".SetTimeInfo method sss i", ".SetTimeZone method s i", ".TimeInfoChanged signal sss -"});
    }

    void HasItsMembersOnly()
    {
        const auto [documented, members] = FetchRow<bool, QStringList>();
        const QString object = QTest::currentDataTag();
        const QString interface = InterfaceOf(object);
        QCOMPARE(MembersShownByBusctl(object), members);
        const QString element =
            InterfaceElement(ReadFile("/usr/share/dbus-1/interfaces/" + interface + ".xml"), interface);
        QVERIFY(element.contains("<method "));
        QCOMPARE(element.contains("<!--"), documented);
        QCOMPARE(InterfaceElement(Introspect(object), interface), element);
    }

    void CarriesBothTypeAnnotations()
    {
        // One for the result of Enumerate; for Start, request and result; for a signal, both spellings.
        const QString xml = InterfaceElement(Introspect("Applications"), InterfaceOf("Applications"));
        for (const char* name : {"com.trolltech.QtDBus.QtTypeName", "org.qtproject.QtDBus.QtTypeName"}) {
            for (const char* value : {"QVariantMap", "QList&lt;QVariantMap&gt;"}) {
                const QString annotation = QStringLiteral("<annotation name=\"%1.Out0\" value=\"%2\"/>")
                                               .arg(QLatin1String(name), QLatin1String(value));
                QVERIFY2(xml.contains(annotation), qPrintable(annotation));
            }
            QVERIFY(
                xml.contains(QStringLiteral("\"%1.In0\" value=\"QVariantMap\"").arg(QLatin1String(name))));
        }
    }

    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

private:
    DaemonFixture m_daemon;
};

QTEST_GUILESS_MAIN(InterfaceTest)
#include "InterfaceTest.moc"
