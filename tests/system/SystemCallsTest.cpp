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

using kxtest::ContentOf;
using kxtest::DaemonFixture;

namespace {

const QString kSyslogKey = QStringLiteral("%platform.syslog.remoteIP:port");
const QString kSyslogFile = QStringLiteral("/etc/sysconfig/syslog");

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
            QString(1'000'000, '\''),
            QString::fromLatin1("'\"`reboot`$(reboot);reboot\n|reboot&%1%s%n\x80"),
            QByteArray("serial\0reboot", 13),
            QByteArray(1'000'000, '\xFF'),
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

int OpenDescriptors(pid_t pid)
{
    return QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::System | QDir::AllEntries).size();
}

int RunRegistryTool(const QStringList& arguments, QString* output = nullptr)
{
    QProcess tool;
    tool.start("kxregistry", arguments);
    tool.waitForFinished(kxtest::Bound(kxtest::kPatience));
    if (output != nullptr) {
        *output = QString::fromUtf8(tool.readAllStandardOutput());
    }
    return tool.exitCode();
}

} // namespace

/// /System as its clients see it.
class SystemCallsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void EveryIdAnswers_data();
    void EveryIdAnswers();
    void HostileArgumentsAreAnswered();
    void LargestMessagesAreAnswered();
    void RemoteSyslogFollowsTheRegistry();
    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

private:
    QVariantMap Call(int id, const QVariantMap& args);

    DaemonFixture m_daemon;
    SystemProxy m_system{"com.veltrasys.kx.core", "/System", QDBusConnection::systemBus()};
};

void SystemCallsTest::initTestCase()
{
    QVERIFY(m_daemon.Start());
    m_system.setTimeout(kxtest::Bound(kxtest::kPatience));
}

/// A D-Bus error is an entry "error" of the result.
QVariantMap SystemCallsTest::Call(int id, const QVariantMap& args)
{
    QDBusPendingReply<QVariantMap> reply = m_system.SystemCall(id, args);
    reply.waitForFinished();
    return reply.isError() ? QVariantMap{{"error", reply.error().message()}} : reply.value();
}

void SystemCallsTest::EveryIdAnswers_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<QVariantMap>("args");
    QTest::addColumn<QVariantMap>("result");

    const QVariantMap success{{"return", 0}};
    const QVariantMap failure{{"return", -1}};
    const QMap<int, QVariantMap> others{{97, {{"return", 0}, {"response", "OK"}}}, {104, failure}};
    for (const auto& call : Calls()) {
        QTest::addRow("%d", call.id) << call.id << call.args << others.value(call.id, success);
    }
    QTest::newRow("refused texts come back")
        << 97 << QVariantMap{{"newconf", "gopher"}}
        << QVariantMap{{"return", -1}, {"response", "Invalid protocol: gopher"}};
    for (const int unknown : {std::numeric_limits<int>::min(), 0, 2, 95, 106}) {
        QTest::addRow("unknown %d", unknown) << unknown << QVariantMap() << failure;
    }
}

void SystemCallsTest::EveryIdAnswers()
{
    QFETCH(int, id);
    QFETCH(QVariantMap, args);
    // The only platform file that an operation needs to succeed.
    QDir().mkpath("/sys/kernel/keypad");
    const QVariantMap result = Call(id, args);
    QTEST(result, "result");
    QCOMPARE(result["return"].type(), QVariant::Int);
}

void SystemCallsTest::HostileArgumentsAreAnswered()
{
    const int descriptors = OpenDescriptors(m_daemon.Pid());
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
    KX_TRY_COMPARE(OpenDescriptors(m_daemon.Pid()), descriptors);
    KX_TRY_VERIFY(kxtest::ChildrenOf(m_daemon.Pid()).isEmpty());
}

void SystemCallsTest::LargestMessagesAreAnswered()
{
    // Each byte becomes a character of three bytes; the bus drops whoever sends more than 32 MiB.
    const QByteArray bytes(33'000'000, '\xFF');
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

void SystemCallsTest::RemoteSyslogFollowsTheRegistry()
{
    const auto restarts = [] { return kxtest::PlatformCalls().count("syslog restart"); };
    QCOMPARE(restarts(), 0);
    QCOMPARE(RunRegistryTool({"set", kSyslogKey, "10.0.0.5:514"}), 0);
    KX_TRY_COMPARE(restarts(), 1);
    QCOMPARE(ContentOf(kSyslogFile), QByteArray("SYSLOGD_OPTIONS=\" -L -R 10.0.0.5:514\"\n"));

    QCOMPARE(RunRegistryTool({"set", kSyslogKey, "10.0.0.5"}), 0);
    const kxtest::LogRecord record = m_daemon.WaitForRecord("!!!Attempt to set incorrect ip-address or port");
    QCOMPARE(record.priority, QString("err"));
    QVERIFY(record.text.endsWith("for logging to remote host:  \"10.0.0.5\""));
    KX_TRY_COMPARE(ContentOf(kSyslogFile), QByteArray("SYSLOGD_OPTIONS=\"\"\n"));
    QString value;
    QCOMPARE(RunRegistryTool({"get", kSyslogKey}, &value), 0);
    QCOMPARE(value.trimmed(), QString());
}

QTEST_GUILESS_MAIN(SystemCallsTest)
#include "SystemCallsTest.moc"
