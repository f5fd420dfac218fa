#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include "misc/Utils.h"
#include "server/SignalHandling.h"
#include "server/applications/processmanager/ProcessManager.h"

#include <QElapsedTimer>

#include <unistd.h>

#include <cerrno>
#include <csignal>

using core::applications::ProcessManager;
using core::configuration::ApplicationConfig;

namespace {

constexpr auto kPid = "/tmp/t/pid";
constexpr auto kStatus = "/tmp/t/status";

/// Starts a program that is no child of this process, as something that an application left behind. Its
/// exit status will be in kStatus, 128 more than the number of a signal.
/// \return its process id, once it runs
pid_t StartStray(unsigned uid, unsigned gid, bool ignoresTerm)
{
    const QString command =
        QStringLiteral("(setpriv --reuid %1 --regid %2 --clear-groups env %3 sleep 60 & echo $! >%4;"
                       " wait $!; echo $? >%5) >/dev/null 2>&1 </dev/null &")
            .arg(uid)
            .arg(gid)
            .arg(ignoresTerm ? "--ignore-signal=TERM" : "--default-signal=TERM", kPid, kStatus);
    Misc::ExecShell(qPrintable(command));
    const auto runs = [] {
        return EntriesOf(ReadFile(kPid).trimmed().toInt(), "cmdline").value(0) == "sleep";
    };
    return QTest::qWaitFor([&] { return ReadFile(kPid).endsWith('\n') && runs(); })
               ? ReadFile(kPid).trimmed().toInt()
               : 0;
}

} // namespace

class TerminationTest : public Fixture {
    Q_OBJECT

private slots:
    void init()
    {
        Fixture::init();
        RemoveAll("/tmp/t");
        MakeDirectory("/tmp/t");
    }

    void OnlyApplicationAccountsAreSignalled_data()
    {
        Columns<unsigned, unsigned, bool, QByteArray>("uid", "gid", "ignoresTerm", "status");
        Row("ends when asked to", 4002U, 4002U, false, QByteArray("143\n"));
        Row("ignores SIGTERM", 4002U, 4002U, true, QByteArray("137\n"));
        Row("first and last id", 4999U, 4000U, true, QByteArray("137\n"));
        const QByteArray spared;
        Row("other group", 4001U, 100U, false, spared);
        Row("other user", 33U, 4001U, false, spared);
        Row("before the range", 3999U, 4000U, false, spared);
        Row("after the range", 4000U, 5000U, false, spared);
    }

    void OnlyApplicationAccountsAreSignalled()
    {
        QFETCH(unsigned, uid);
        QFETCH(unsigned, gid);
        QFETCH(bool, ignoresTerm);
        QFETCH(QByteArray, status);
        const pid_t stray = StartStray(uid, gid, ignoresTerm);
        QVERIFY(stray > 1);
        QElapsedTimer timer;
        timer.start();
        ProcessManager().TerminateApps();
        const qint64 elapsed = timer.elapsed();
        QVERIFY2((elapsed >= 250) == !status.isEmpty(), qPrintable(QString::number(elapsed)));
        if (status.isEmpty()) {
            QCOMPARE(EntriesOf(stray, "cmdline").value(0), QByteArray("sleep"));
            kill(stray, SIGHUP);
            status = "129\n";
        }
        QTRY_COMPARE(ReadFile(kStatus), status);
        QCOMPARE(TakeLogLines(), QStringList());
    }

    void PauseIsWholeWhenChildrenEnd()
    {
        // The end of the one that obeys interrupts the pause that the other is given.
        QVERIFY(StartStray(4003, 4003, true) > 1);
        SignalHandlerSet({SIGCHLD}, {}, sigHandler);
        MakeDirectory("/home/pay", 4002, 4002);
        ApplicationConfig config("pay");
        config.m_uid = config.m_gid = 4002;
        ProcessManager manager;
        QVERIFY(manager.StartProcess("/bin/sleep 60", config));
        QElapsedTimer timer;
        timer.start();
        manager.TerminateApps();
        const qint64 elapsed = timer.elapsed();
        static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
        QVERIFY2(elapsed >= 250, qPrintable(QString::number(elapsed)));
        QTRY_COMPARE(ReadFile(kStatus), QByteArray("137\n"));
    }

    void AllChildrenAreReaped()
    {
        for (int child = 0; child < 10; ++child) {
            if (fork() == 0) {
                _exit(0);
            }
        }
        if (fork() == 0) { // no application, so it is waited for
            execl("/bin/sleep", "sleep", "0.1", nullptr);
            _exit(1);
        }
        ProcessManager().TerminateApps();
        QCOMPARE(Children(), QList<pid_t>());
    }

    void SingleProcess()
    {
        for (const int invalid : {1, 0, -1, -5}) {
            QCOMPARE(ProcessManager::TerminateProcess(invalid, 0), -1);
            QCOMPARE(TakeLogLines(), QStringList("3 TerminateProcess TerminateProcess: invalid PID"));
        }
        QCOMPARE(ProcessManager::TerminateProcess(99999999, SIGTERM), -1);
        QCOMPARE(TakeLogLines(), QStringList("6 TerminateProcess \"TerminateProcess: kill() call failed for "
                                             "PID=99999999 (No such process)\""));
        QCOMPARE(ProcessManager::TerminateProcess(getpid(), 0), 0);
        QCOMPARE(TakeLogLines(), QStringList());
    }
};

KX_TEST_MAIN(TerminationTest)
#include "tst_termination.moc"
