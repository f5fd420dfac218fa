#include "DaemonFixture.h"

#include "SystemProxy.h"

#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>

#include <fcntl.h>
#include <unistd.h>

#include <limits>

using kxtest::DaemonFixture;

namespace {

struct Call {
    int id;
    QVariantMap args; ///< with every key that the operation reads
};

/// A valid call of each operation that reads arguments.
const QVector<Call>& Calls()
{
    static const QVector<Call> calls{
        {96,
         {{"mode", "serial"},
          {"usbForceFullspeed", "true"},
          {"dflt", "0"},
          {"usbuid", "1"},
          {"hubid", "unchanged"},
          {"lteConnected", true}}},
        {97, {{"newconf", "HTTPS"}, {"caching", "off"}, {"buffer-resp", "off"}}},
        {98, {{"url", "http://localhost/"}}},
        {99, {{"text", "a text"}}},
        {100, {{"command", "enable"}}},
        {102, {{"number", "2"}}},
    };
    return calls;
}

/// What a caller may put in the place of a text.
QVariantList HostileValues()
{
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const QVariant descriptor = QVariant::fromValue(QDBusUnixFileDescriptor(null));
    close(null);
    return {QString(),
            QString(1000000, '\''),
            QString::fromLatin1("'\"`reboot`$(reboot);reboot\n|reboot&%1%s%n\x80"),
            QByteArray("serial\0reboot", 13),
            QByteArray(1000000, '\xFF'),
            QStringList{"serial", "HTTP"},
            QVariantList{1, "2", QVariantList{3}},
            QVariantMap{{"mode", QVariantMap{{"mode", "serial"}}}},
            QVariant::fromValue(QDBusVariant(QVariant::fromValue(QDBusVariant(2)))),
            QVariant::fromValue(QDBusObjectPath("/System")),
            QPoint(1, 2),
            descriptor,
            std::numeric_limits<double>::quiet_NaN(),
            std::numeric_limits<qlonglong>::min(),
            std::numeric_limits<qulonglong>::max(),
            QVariant::fromValue(uchar(50)),
            true};
}

} // namespace

/// /System as its clients see it.
class SystemCallsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_daemon.Start());
        m_system.setTimeout(kxtest::Bound(kxtest::kPatience));
    }

    void HostileArgumentsAreAnswered()
    {
        PassInPlaceOfEach(1); // the first call opens the log for good
        const int descriptors = m_daemon.OpenDescriptors();
        for (const QVariant& value : HostileValues()) {
            PassInPlaceOfEach(value);
        }
        QVERIFY(!kxtest::PlatformCalls().contains("reboot"));
        KX_TRY_COMPARE(m_daemon.OpenDescriptors(), descriptors);
        KX_TRY_VERIFY(kxtest::ChildrenOf(m_daemon.Pid()).isEmpty());
    }

    void LargestMessagesAreAnswered()
    {
        // Each byte becomes a character of three bytes; the bus drops whoever sends more than 32 MiB.
        PassInPlaceOfEach(QByteArray(33000000, '\xFF'));
        QVERIFY(DaemonFixture::IsNameOwned());
    }

    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

private:
    /// Makes each call with the value for one argument after the other, and expects a number for result.
    void PassInPlaceOfEach(const QVariant& value)
    {
        for (const auto& call : Calls()) {
            for (const QString& key : call.args.keys()) {
                QVariantMap args = call.args;
                args[key] = value;
                QDBusPendingReply<QVariantMap> reply = m_system.SystemCall(call.id, args);
                reply.waitForFinished();
                QVERIFY2(!reply.isError() && reply.value()["return"].type() == QVariant::Int,
                         qPrintable(QString("%1 %2 %3: %4")
                                        .arg(call.id)
                                        .arg(key, value.typeName(), reply.error().message())));
            }
        }
    }

    DaemonFixture m_daemon;
    SystemProxy m_system{"com.veltrasys.kx.core", "/System", QDBusConnection::systemBus()};
};

QTEST_GUILESS_MAIN(SystemCallsTest)
#include "SystemCallsTest.moc"
