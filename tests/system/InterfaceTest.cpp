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

} // namespace

/// What the daemon shows of its objects to a client that knows nothing of them.
class InterfaceTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(m_daemon.Start()); }

    void IsTheInstalledOne()
    {
        for (const QString object : {"Applications", "System", "Tools"}) {
            const QString interface = InterfaceOf(object);
            const QString element =
                InterfaceElement(ReadFile("/usr/share/dbus-1/interfaces/" + interface + ".xml"), interface);
            QVERIFY(element.contains("<method "));
            QCOMPARE(element.contains("<!--"), object != "Tools"); // whether its methods are described
            QCOMPARE(InterfaceElement(Introspect(object), interface), element);
        }
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
