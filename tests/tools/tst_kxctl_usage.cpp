#include "CommandRun.h"
#include "Files.h"
#include "PrivateRoot.h"
#include "Table.h"

using kxtest::CommandRun;
using kxtest::RunCommand;
using kxtest::RunKxctl;

/// What needs no daemon, or is about there being none.
class KxctlUsageTest : public QObject {
    Q_OBJECT

private slots:
    void WithoutDaemon()
    {
        const QString commands =
            "apps;app pay;start;start pay receipt;home;stop;restart --yes;monitor;"
            "time set 2024-05-17;zone set UTC;timeinfo  UTC HOST;timeinfo reset;var set A b;"
            "audiopayd;audiopayd on;system reboot;system poweroff;system hwtest;"
            "system console enable;system log text;system web;system usb --mode serial;"
            "system kernel;system kernel set 1;system battery;system keypad;"
            "system call 99 text=x --json";
        for (const QString& command : commands.split(';')) {
            const CommandRun run = RunKxctl(command.split(' '));
            QCOMPARE(command + ": " + run.err, command + ": kxctl: the daemon is not running\n");
            QCOMPARE(run.status, 3);
            QCOMPARE(run.out, QString());
        }
    }

    void WithoutBus()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/none");
        const CommandRun run = RunCommand("kxctl", {"apps"}, environment);
        KX_VERIFY_MATCH(run.err, "kxctl: cannot reach the system bus: [^\n]+\n");
        QCOMPARE(run.status, 3);
    }

    void Misuse_data()
    {
        const Table<QStringList, QString> table;
        const auto row = [&](const QStringList& arguments, const QString& reason) {
            table("kxctl " + arguments.join(' ').toUtf8(), arguments, reason);
        };
        row({}, "no verb given; see kxctl --help");
        row({"bogus"}, "unknown verb 'bogus'; see kxctl --help");
        row({"--bogus"}, "unknown option 'bogus'; see kxctl --help");
        row({"apps", "--bogus"}, "apps: unknown option 'bogus'; see kxctl apps --help");
        row({"apps", "x"}, "apps: unexpected argument 'x'; see kxctl apps --help");
        row({"--timeout", "soon", "apps"}, "--timeout: 'soon' is no number of seconds");
        row({"app"}, "app: needs NAME; see kxctl app --help");
        row({"start", "pay"}, "start: needs a BINARY of that application; see kxctl start --help");
        row({"restart"},
            "restart: not without --yes when there is no terminal to ask on; see kxctl restart --help");
        row({"system"}, "system: needs an operation; see kxctl system --help");
        row({"system", "bogus"}, "system: unknown operation 'bogus'; see kxctl system --help");
        row({"timeinfo", "now"}, "timeinfo: needs UTC ZONE SOURCE; see kxctl timeinfo --help");
        row({"audiopayd", "maybe"}, "audiopayd: 'maybe' is neither on nor off; see kxctl audiopayd --help");
        row({"system", "console", "x"},
            "system console: 'x' is neither enable nor disable; see kxctl system console --help");
        row({"system", "web", "--caching", "yes"},
            "system web: --caching is one of on, off, not 'yes'; see kxctl system web --help");
        row({"system", "usb"}, "system usb: needs --mode; see kxctl system usb --help");
        row({"system", "kernel", "set", "4"},
            "system kernel set: '4' is none of 1, 2 and 3; see kxctl system kernel set --help");
        row({"system", "call", "usb"}, "system call: 'usb' is no number; see kxctl system call --help");
        row({"system", "call", "99", "text"},
            "system call: 'text' is neither KEY=TEXT nor KEY:=JSON; see kxctl system call --help");
        row({"system", "call", "99", "text:={"},
            "system call: 'text:={' holds no JSON value; see kxctl system call --help");
        row({"check", "/tmp", "--name", "a/b"},
            "check: 'a/b' is no name of an application; --name gives one; see kxctl check --help");
        row({"check", "/none"}, "check: '/none' is no directory; see kxctl check --help");
    }

    void Misuse()
    {
        const auto [arguments, reason] = FetchRow<QStringList, QString>();
        const CommandRun run = RunKxctl(arguments);
        QCOMPARE(run.err, "kxctl: " + reason + '\n');
        QCOMPARE(run.status, 2);
        QCOMPARE(run.out, QString());
    }

    void HelpAndManualKnowEveryVerb()
    {
        const CommandRun overview = RunKxctl({"--help"});
        QCOMPARE(overview.status, 0);
        const QString manual = QString::fromUtf8(ReadFile("/usr/share/man/man1/kxctl.1")).replace("\\-", "-");
        QRegularExpression verb("^  ([a-z]+(?: [a-z]+)*)(?=  | [^a-z ])",
                                QRegularExpression::MultilineOption);
        int count = 0;
        for (auto match = verb.globalMatch(overview.out); match.hasNext(); ++count) {
            const QString name = match.next().captured(1);
            const CommandRun help = RunKxctl(name.split(' ') + QStringList("--help"));
            QCOMPARE(help.status, 0);
            KX_VERIFY_MATCH(help.out, "Usage: kxctl " + name + " .*--timeout.*");
            QVERIFY2(kxtest::Matches(manual, ".*\n\\.[BR]+I? \"?" + name + "[\" \\n].*"), qPrintable(name));
        }
        QCOMPARE(count, 28);
        // What follows the program is for the program.
        QVERIFY(RunKxctl({"start", "--help"}).out.startsWith("Usage: kxctl start [OPTION]... [APP BINARY "));
    }
};

KX_TEST_MAIN(KxctlUsageTest)
#include "tst_kxctl_usage.moc"
