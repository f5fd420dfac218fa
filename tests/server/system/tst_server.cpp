#include "Terminal.h"

namespace {

const QStringList kApplicationsRestarted{"OnTerminate", "OnTerminate", "OnStarted"};
const QString kSecure = "/sys/kernel/secure/type";

} // namespace

/// Dispatch and the small operations.
class SystemServerTest : public QObject {
    Q_OBJECT

private slots:
    void init() { m_terminal.Reset(); }
    void Operation_data();
    void Operation();
    void HardwareTestGetsItsPage_data();
    void HardwareTestGetsItsPage();
    void TypeIsTheNumberInTheLastLine_data();
    void TypeIsTheNumberInTheLastLine();
    void RecordsCarryTheirOrigin();

private:
    Terminal m_terminal;
};

void SystemServerTest::Operation_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<Case>("testCase");

    QTest::newRow("reboot") << 1 << Case{{}, {}, kSuccess, {"reboot"}, {}, {}};
    QTest::newRow("status of the command")
        << 1 << Case{{}, {{Answer("reboot.status"), "7"}}, {{"return", 7}}, {"reboot"}, {}, {}};
    QTest::newRow("power-off") << 101 << Case{{},
                                              {},
                                              kSuccess,
                                              {"poweroff"},
                                              {"5 DoPoweroff Powering Off...."},
                                              {{"/tmp/kxcore_poweroff", ""}}};
    QTest::newRow("keypad") << 105 << Case{{}, {{"/sys/kernel/keypad/kbdreset", ""}},   kSuccess, {},
                                           {}, {{"/sys/kernel/keypad/kbdreset", "1\n"}}};
    for (const int unknown : {-1, 0, 2, 42, 95, 106}) {
        QTest::addRow("unknown %d", unknown)
            << unknown
            << Case{{},
                    {},
                    kFailure,
                    {},
                    {QString("5 SystemCall Unexpected method Id for system call: %1").arg(unknown)},
                    {}};
    }

    QTest::newRow("log a text") << 99 << Case{{{"text", "a \"b\"\n%1 %s"}},        {}, kSuccess, {},
                                              {R"(6 DoLogData "a \"b\"\n%1 %s")"}, {}};
    QTest::newRow("log a number") << 99 << Case{{{"text", 5}}, {}, kSuccess, {}, {R"(6 DoLogData "5")"}, {}};
    QTest::newRow("log nothing") << 99 << Case{{{"text", ""}}, {}, kFailure, {}, {}, {}};
    QTest::newRow("log a list") << 99 << Case{{{"text", QVariantList{1}}}, {}, kFailure, {}, {}, {}};
    const QString text(65'536, 'x');
    QTest::newRow("log what a record takes")
        << 99 << Case{{{"text", text + "y"}}, {}, kSuccess, {}, {"6 DoLogData \"" + text + '"'}, {}};

    QTest::newRow("console on") << 100 << Case{{{"command", "enable"}},
                                               {},
                                               kSuccess,
                                               QStringList("console enable") + kApplicationsRestarted,
                                               {},
                                               {}};
    QTest::newRow("console script fails")
        << 100
        << Case{{{"command", "disable"}},
                {{Answer("console.status"), "3"}},
                {{"return", 3}},
                QStringList("console disable") + kApplicationsRestarted,
                {"3 DoConsoleStatusChange Error changing console status: *"},
                {}};
    for (const char* command : {"on", "Enable", "enable ", "enable;reboot", ""}) {
        QTest::addRow("console '%s'", command)
            << 100 << Case{{{"command", command}}, {}, kFailure, {}, {}, {}};
    }
    QTest::newRow("console without command") << 100 << Case{{}, {}, kFailure, {}, {}, {}};
}

void SystemServerTest::Operation()
{
    QFETCH(int, id);
    QFETCH(Case, testCase);
    m_terminal.Run(id, testCase);
}

void SystemServerTest::HardwareTestGetsItsPage_data()
{
    QTest::addColumn<QVariantMap>("args");
    QTest::addColumn<QString>("call");

    // In this order: what one call leaves behind must not reach the next.
    const QString plain = "hwtest -f";
    const QString page = "http://localhost/a b?c=$(reboot)";
    QTest::newRow("page") << QVariantMap{{"url", page}} << plain + " OPEN_ON_EXIT_URL=" + page;
    QTest::newRow("none") << QVariantMap{} << plain;
    QTest::newRow("empty") << QVariantMap{{"url", ""}} << plain + " OPEN_ON_EXIT_URL=";
    QTest::newRow("no text") << QVariantMap{{"url", QByteArray("http://localhost/")}} << plain;
    const QString longest(128 * 1024 - 18, 'x');
    QTest::newRow("longest") << QVariantMap{{"url", longest}} << plain + " OPEN_ON_EXIT_URL=" + longest;
    QTest::newRow("too long") << QVariantMap{{"url", longest + "x"}} << plain;
}

void SystemServerTest::HardwareTestGetsItsPage()
{
    QFETCH(QVariantMap, args);
    QFETCH(QString, call);
    QCOMPARE(m_terminal.Server().SystemCall(98, args), kSuccess);
    // It runs in the background.
    QStringList calls;
    QTRY_VERIFY(!(calls += Terminal::TakeCalls()).isEmpty());
    QVERIFY2(calls == QStringList(call), qPrintable(calls.join('\n').left(200)));
}

void SystemServerTest::TypeIsTheNumberInTheLastLine_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("type");

    QTest::newRow("one line") << QByteArray("1\n") << 1;
    QTest::newRow("no newline") << QByteArray("12") << 12;
    QTest::newRow("two lines") << QByteArray("1\n 4 x\n") << 4;
    QTest::newRow("no number") << QByteArray("abc\n") << 0;
    QTest::newRow("long line in pieces") << QByteArray(79, '7') + "5\n" << 5;
    QTest::newRow("empty") << QByteArray("") << -1;
    QTest::newRow("missing") << QByteArray() << -1;
}

void SystemServerTest::TypeIsTheNumberInTheLastLine()
{
    QFETCH(QByteArray, content);
    Terminal::Create({{kSecure, content}});
    QTEST(core::system::GetType(kSecure.toLatin1()), "type");
    QCOMPARE(core::system::Exists(kSecure.toLatin1()), !content.isNull());
}

void SystemServerTest::RecordsCarryTheirOrigin()
{
    m_terminal.Server().SystemCall(102, {});
    const QVector<LogRecord> records = TakeLog();
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().file, QString("Server"));
    QCOMPARE(records.first().function, QString("DoSetL2KernelsVersion"));
    QVERIFY(records.first().line > 0);
}

KX_SYSTEM_TEST_MAIN(SystemServerTest)
#include "tst_server.moc"
