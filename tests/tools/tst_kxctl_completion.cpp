#include "CommandRun.h"
#include "DaemonFixture.h"

using kxtest::CommandRun;
using kxtest::RunCommand;

class KxctlCompletionTest : public QObject {
    Q_OBJECT

private:
    kxtest::DaemonFixture m_daemon;

private slots:
    void initTestCase()
    {
        kxtest::RemoveApplications();
        kxtest::InstallApplication("pay", 4002, 4002, "<application/>",
                                   {kxtest::Script("bin/receipt", ""), kxtest::Script("bin/refund", ""),
                                    kxtest::Script("bin/rebate;reboot", ""),
                                    kxtest::Script("bin/re$(id)", "")});
        kxtest::InstallApplication("shop", 4003, 4003);
        QVERIFY(m_daemon.Start());
        MakeDirectory("/tmp/application");
    }

    void Completes_data()
    {
        const Table<QString, QString> table;
        const auto row = [&](const char* words, const char* expected) { table(words, words, expected); };
        row("a", "app apps audiopayd");
        row("system k", "kernel keypad");
        row("system kernel ", "--help --json --timeout set");
        row("var ", "set");
        row("app ", "--help --json --timeout pay shop");
        row("--json app p", "pay");
        row("start pay re", "receipt refund");
        row("start pay receipt r", "");
        row("audiopayd o", "off on");
        row("system console ", "--help --json --timeout disable enable");
        row("system usb --mode ", "ethernet serial");
        row("system web --caching o", "off on");
        row("apps --timeout 5 --n", "--names");
        row("check /tmp/ap", "/tmp/application");
        row("check --na", "--name");
        row("--v", "--version");
    }

    void Completes()
    {
        const auto [words, expected] = FetchRow<QString, QString>();
        const QString script = "source /usr/share/bash-completion/completions/kxctl\n"
                               "IFS=' ' read -r -a COMP_WORDS <<<\"kxctl $1\"\n"
                               "[[ $1 != *' ' ]] || COMP_WORDS+=('')\n"
                               "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                               "_kxctl\n"
                               "echo \"${COMPREPLY[*]}\"\n";
        const CommandRun run = RunCommand("bash", {"-c", script, "bash", words});
        QCOMPARE(run.err, QString());
        QCOMPARE(run.out, expected + '\n');
    }
};

QTEST_GUILESS_MAIN(KxctlCompletionTest)
#include "tst_kxctl_completion.moc"
