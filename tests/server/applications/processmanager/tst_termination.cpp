#include "server/applications/processmanager/ProcessManager.h"

#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include "server/SignalHandling.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

using core::applications::ProcessManager;
using core::configuration::ApplicationConfig;

namespace {

/// Ends, but not without leaving its parent another child that does the same.
void LeaveSibling(int /*signo*/)
{
    if (syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0) != 0) {
        _exit(0);
    }
}

/// Multiplies when asked to end, or all the time.
[[noreturn]] void RunHydra(bool restless)
{
    if (std::signal(SIGTERM, LeaveSibling) == SIG_ERR || setgid(4002) != 0 || setuid(4002) != 0) {
        _exit(1);
    }
    for (;;) {
        restless ? LeaveSibling(0) : static_cast<void>(pause());
    }
}

} // namespace

/// Which processes end is tested with the daemon itself, see StartSequenceTest.
class TerminationTest : public Fixture {
    Q_OBJECT

private slots:
    void PauseIsWholeWhenChildrenEnd()
    {
        // The end of the one that obeys interrupts the pause that the other is given.
        const Stray stubborn(4003, 4003, true);
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
        QTRY_COMPARE(stubborn.EndedBy(), SIGKILL);
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

    void LateChildrenEndAsWell_data()
    {
        const Table<bool> row;
        row("made when asked to end", false);
        row("made all the time", true);
    }

    void LateChildrenEndAsWell()
    {
        const auto [restless] = FetchRow<bool>();
        const pid_t hydra = fork();
        if (hydra == 0) {
            RunHydra(restless);
        }
        QTRY_VERIFY(StatusOf(Children().value(0)).value("Uid").startsWith("4002"));
        ProcessManager().TerminateApps();
        QCOMPARE(Children(), QList<pid_t>());
        TakeLogLines(); // of processes that ended by themselves
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
