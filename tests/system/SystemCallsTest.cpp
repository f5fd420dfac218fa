#include "DaemonFixture.h"

#include "SystemProxy.h"

#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QFile>
#include <QPoint>
#include <QProcess>

#include <fcntl.h>
#include <unistd.h>

#include <limits>

using kxtest::DaemonFixture;

namespace {

const QString kSyslogKey = QStringLiteral("%platform.syslog.remoteIP:port");

struct Call {
    int id;
    QVariantMap args; ///< with every key that the operation reads
};

/// One valid call of each operation.
const QVector<Call>& Calls()
{
    static const QVector<Call> calls{
        {1, {}},
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
        {101, {}},
        {102, {{"number", "2"}}},
        {103, {}},
        {104, {}},
        {105, {}},
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

    void EveryIdAnswers_data()
    {
        const Table<int, QVariantMap, QVariantMap> row;
        const QVariantMap success{{"return", 0}};
        const QVariantMap failure{{"return", -1}};
        const QMap<int, QVariantMap> others{{97, {{"return", 0}, {"response", "OK"}}}, {104, failure}};
        for (const auto& call : Calls()) {
            row(QByteArray::number(call.id), call.id, call.args, others.value(call.id, success));
        }
        row("refused texts come back", 97, {{"newconf", "gopher"}},
            {{"return", -1}, {"response", "Invalid protocol: gopher"}});
        row("unknown", std::numeric_limits<int>::min(), {}, failure);
    }

    void EveryIdAnswers()
    {
        const auto [id, args, expected] = FetchRow<int, QVariantMap, QVariantMap>();
        MakeDirectory("/sys/kernel/keypad"); // all that an operation needs to succeed
        const QVariantMap result = Call(id, args);
        QCOMPARE(result, expected);
        QCOMPARE(result["return"].type(), QVariant::Int);
    }

    void HostileArgumentsAreAnswered()
    {
        const int descriptors = m_daemon.OpenDescriptors();
        for (const auto& call : Calls()) {
            for (const QString& key : call.args.keys()) {
                for (const QVariant& value : HostileValues()) {
                    QVariantMap args = call.args;
                    args[key] = value;
                    const QVariantMap result = Call(call.id, args);
                    QVERIFY2(result["return"].type() == QVariant::Int,
                             qPrintable(QString("%1 %2 %3: %4")
                                            .arg(call.id)
                                            .arg(key, value.typeName(), result["error"].toString())));
                }
            }
        }
        QCOMPARE(kxtest::PlatformCalls().count("reboot"), 1); // the one of EveryIdAnswers
        KX_TRY_COMPARE(m_daemon.OpenDescriptors(), descriptors);
        KX_TRY_VERIFY(kxtest::ChildrenOf(m_daemon.Pid()).isEmpty());
    }

    void LargestMessagesAreAnswered()
    {
        // Each byte becomes a character of three bytes; the bus drops whoever sends more than 32 MiB.
        const QByteArray bytes(33000000, '\xFF');
        for (const auto& call : Calls()) {
            for (const QString& key : call.args.keys()) {
                QVariantMap args = call.args;
                args[key] = bytes;
                const QVariantMap result = Call(call.id, args);
                QVERIFY2(result.contains("return"), qPrintable(key + ": " + result["error"].toString()));
            }
        }
        QVERIFY(DaemonFixture::IsNameOwned());
    }

    void RemoteSyslogFollowsTheRegistry()
    {
        for (const char* target : {"10.0.0.5:514", "10.0.0.5"}) {
            QCOMPARE(QProcess::execute("kxregistry", {"set", kSyslogKey, target}), 0);
            const bool isValid = QByteArray(target).contains(':');
            const QByteArray options = isValid ? QByteArray(" -L -R ") + target : QByteArray();
            KX_TRY_COMPARE(ReadFile("/etc/sysconfig/syslog"), "SYSLOGD_OPTIONS=\"" + options + "\"\n");
        }
        KX_TRY_VERIFY(kxtest::PlatformCalls().count("syslog restart") >= 2);
        const auto record = m_daemon.WaitForRecord("!!!Attempt to set incorrect ip-address or port");
        QCOMPARE(record.priority, QString("err"));
        QVERIFY(record.text.endsWith("for logging to remote host:  \"10.0.0.5\""));
    }

    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

private:
    /// A D-Bus error is an entry "error" of the result.
    QVariantMap Call(int id, const QVariantMap& args)
    {
        QDBusPendingReply<QVariantMap> reply = m_system.SystemCall(id, args);
        reply.waitForFinished();
        return reply.isError() ? QVariantMap{{"error", reply.error().message()}} : reply.value();
    }

    DaemonFixture m_daemon;
    SystemProxy m_system{"com.veltrasys.kx.core", "/System", QDBusConnection::systemBus()};
};

QTEST_GUILESS_MAIN(SystemCallsTest)
#include "SystemCallsTest.moc"
