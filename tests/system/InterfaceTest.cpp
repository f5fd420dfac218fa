#include "DaemonFixture.h"

#include <QDBusInterface>
#include <QDBusReply>
#include <QStandardPaths>

using kxtest::ContentOf;
using kxtest::DaemonFixture;

namespace {

const QString kInterface = QStringLiteral("com.veltrasys.kx.core.Applications");

/// The interface element of an introspection document, comments included.
QString InterfaceElement(const QString& xml, const QString& interface)
{
    const int begin = xml.indexOf(QStringLiteral("<interface name=\"%1\">").arg(interface));
    const QString end = QStringLiteral("</interface>");
    return begin < 0 ? QString() : xml.mid(begin, xml.indexOf(end, begin) + end.size() - begin);
}

QString Introspect()
{
    QDBusInterface object("com.veltrasys.kx.core", "/Applications", "org.freedesktop.DBus.Introspectable",
                          QDBusConnection::systemBus());
    return QDBusReply<QString>(object.call("Introspect")).value();
}

/// "name kind signature result" of each member that busctl shows for the interface, in its order.
QStringList MembersShownByBusctl()
{
    QProcess busctl;
    busctl.start("busctl", {"--system", "--no-pager", "--no-legend", "introspect", "com.veltrasys.kx.core",
                            "/Applications", kInterface});
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

/// What the daemon shows of /Applications to a client that knows nothing of it.
class InterfaceTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(m_daemon.Start()); }
    void HasItsMembersOnly();
    void IntrospectsAsInstalled();
    void CarriesBothTypeAnnotations();
    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

private:
    DaemonFixture m_daemon;
};

void InterfaceTest::HasItsMembersOnly()
{
    if (QStandardPaths::findExecutable("busctl").isEmpty()) {
        QSKIP("busctl is not installed (scripts/setup --dev)");
    }
    QCOMPARE(
        MembersShownByBusctl(),
        (QStringList{".Enumerate method - aa{sv}", ".Restart method s -", ".Start method a{sv} a{sv}",
                     ".Terminate method - -", ".OnStarted signal a{sv} -", ".OnTerminate signal a{sv} -"}));
}

void InterfaceTest::IntrospectsAsInstalled()
{
    const QString installed =
        QString::fromUtf8(ContentOf(QStringLiteral("/usr/share/dbus-1/interfaces/%1.xml").arg(kInterface)));
    const QString element = InterfaceElement(installed, kInterface);
    QVERIFY(element.contains("<!--"));
    QCOMPARE(InterfaceElement(Introspect(), kInterface), element);
}

void InterfaceTest::CarriesBothTypeAnnotations()
{
    // One for the result of Enumerate; for Start, request and result; for a signal, both spellings.
    const QString xml = InterfaceElement(Introspect(), kInterface);
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
