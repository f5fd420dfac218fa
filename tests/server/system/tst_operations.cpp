#include "SystemFixture.h"

namespace {

const QStringList kApplicationsRestarted{"OnTerminate", "OnTerminate", "OnStarted"};
const QString kSecure = "/sys/kernel/secure/type";

} // namespace

/// Dispatch and the small operations.
class OperationsTest : public SystemFixture {
    Q_OBJECT

private slots:
    void Operation_data()
    {
        const Table<int, Case> row;
        row("reboot", 1, {{}, {}, kSuccess, {"reboot"}});
        row("status of the command", 1, {{}, {{Answer("reboot.status"), "7"}}, {{"return", 7}}, {"reboot"}});
        row("power-off", 101,
            {{},
             {},
             kSuccess,
             {"poweroff"},
             {"5 DoPoweroff Powering Off...."},
             {{"/tmp/kxcore_poweroff", ""}}});
        const QString keypad = "/sys/kernel/keypad/kbdreset";
        row("keypad", 105, {{}, {{keypad, ""}}, kSuccess, {}, {}, {{keypad, "1\n"}}});
        for (const int id : {-1, 0, 2, 42, 95, 106}) {
            const QString text = QString("5 SystemCall Unexpected method Id for system call: %1").arg(id);
            row("unknown " + QByteArray::number(id), id, {{}, {}, kFailure, {}, {text}});
        }

        const auto logs = [&](const QVariant& text, const QStringList& log) {
            row("log " + text.toByteArray().left(20) + text.typeName(), 99,
                {{{"text", text}}, {}, log.isEmpty() ? kFailure : kSuccess, {}, log});
        };
        const QString longest(65536, 'x');
        logs("a \"b\"\n%1 %s", {"6 DoLogData \"a \\\"b\\\"\\n%1 %s\""});
        logs(5, {"6 DoLogData \"5\""});
        logs("", {});
        logs(QVariantList{1}, {});
        logs(longest + "y", {"6 DoLogData \"" + longest + '"'});

        row("console on", 100,
            {{{"command", "enable"}}, {}, kSuccess, QStringList("console enable") + kApplicationsRestarted});
        row("console script fails", 100,
            {{{"command", "disable"}},
             {{Answer("console.status"), "3"}},
             {{"return", 3}},
             QStringList("console disable") + kApplicationsRestarted,
             {"3 DoConsoleStatusChange Error changing console status: *"}});
        for (const char* command : {"on", "Enable", "enable ", "enable;reboot", ""}) {
            row(QByteArray("console ") + command, 100, {{{"command", command}}, {}, kFailure});
        }
        row("console without command", 100, {{}, {}, kFailure});
    }

    void Operation()
    {
        const auto [id, testCase] = FetchRow<int, Case>();
        Run(id, testCase);
    }

    void PlantedLinkDoesNotKeepThePowerOn()
    {
        MakeLink("/none/x", "/tmp/kxcore_poweroff", 4002);
        Run(101, {{},
                  {},
                  kSuccess,
                  {"poweroff"},
                  {"5 DoPoweroff Powering Off...."},
                  {{"/tmp/kxcore_poweroff", ""}}});
    }

    void HardwareTestGetsItsPage()
    {
        const QString plain = "hwtest -f";
        const QString page = "http://localhost/a b?c=$(reboot)";
        const QString longest(128 * 1024 - 18, 'x');
        // In this order: what one call leaves behind must not reach the next.
        for (const auto& [args, call] : QVector<QPair<QVariantMap, QString>>{
                 {{{"url", page}}, plain + " OPEN_ON_EXIT_URL=" + page},
                 {{}, plain},
                 {{{"url", ""}}, plain + " OPEN_ON_EXIT_URL="},
                 {{{"url", QByteArray("http://localhost/")}}, plain},
                 {{{"url", longest}}, plain + " OPEN_ON_EXIT_URL=" + longest},
                 {{{"url", longest + "x"}}, plain}}) {
            QCOMPARE(Server().SystemCall(98, args), kSuccess);
            QStringList calls; // in the background
            QTRY_VERIFY(!(calls += TakeCalls()).isEmpty());
            QVERIFY2(calls == QStringList(call), qPrintable(calls.join('\n').left(200)));
        }
    }

    void TypeIsTheNumberInTheLastLine()
    {
        for (const auto& [content, type] : QVector<QPair<QByteArray, int>>{{"1\n", 1},
                                                                           {"12", 12},
                                                                           {"1\n 4 x\n", 4},
                                                                           {"abc\n", 0},
                                                                           {QByteArray(79, '7') + "5\n", 5},
                                                                           {"", -1},
                                                                           {{}, -1}}) {
            Create({{kSecure, content}});
            QCOMPARE(core::system::GetType(kSecure.toLatin1()), type);
            QCOMPARE(core::system::Exists(kSecure.toLatin1()), !content.isNull());
        }
    }

    void RecordsCarryTheirOrigin()
    {
        Server().SystemCall(102, {});
        const LogRecord record = TakeLog().value(0);
        QCOMPARE(record.file + ' ' + record.function, QString("Server DoSetL2KernelsVersion"));
        QVERIFY(record.line > 0);
    }
};

KX_TEST_MAIN(OperationsTest)
#include "tst_operations.moc"
