#include "CommandRun.h"
#include "DaemonFixture.h"

#include <QDBusConnectionInterface>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

using kxtest::DaemonFixture;

namespace {

const QString kForeground = QStringLiteral("--no-daemon");

QString TargetOf(pid_t pid, const char* link)
{
    return QFileInfo(QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(link))).symLinkTarget();
}

} // namespace

/// How the daemon starts and ends, and what it says about it.
class LifecycleTest : public QObject {
    Q_OBJECT

private slots:
    void PrintsUsage()
    {
        // Only the first argument counts.
        for (const QStringList& arguments : {QStringList("--help"), {"--help", kForeground}}) {
            DaemonFixture daemon;
            daemon.InjectFault("throw"); // touching the bus would end it with another status
            QVERIFY(daemon.Launch(arguments));
            QCOMPARE(daemon.WaitForExit(), 0);
            QCOMPARE(daemon.Output(), QByteArray("Usage: kxcore --no-daemon\n"
                                                 "              --help\n"
                                                 "\n"
                                                 "options:\n"
                                                 "--no-daemon           : disable daemonization\n"
                                                 "--help                : show help\n"
                                                 "\n"
                                                 "\n"));
            QVERIFY(daemon.Records().isEmpty());
        }
    }

    void FailsToStart_data()
    {
        const Table<QString, QString, int, QString> row; // what fails, option, status, text
        row("daemon", "daemon", "--any", 1, "Cannot daemonize process");
        row("name", "registerService", kForeground, 2, "Can't register service");
        for (const QString object : {"/Applications", "/System", "/Tools"}) {
            row(object.toLatin1(), "registerObject:" + object, kForeground, 3,
                "Can't register object " + object);
        }
        row("exception", "throw", kForeground, 4, "Unexpected exception");
    }

    void FailsToStart()
    {
        const auto [fault, option, status, text] = FetchRow<QString, QString, int, QString>();
        DaemonFixture daemon;
        daemon.InjectFault(fault);
        QVERIFY(daemon.Launch({option}));
        QCOMPARE(daemon.WaitForExit(), status);
        const kxtest::LogRecord record = daemon.WaitForRecord(text);
        QCOMPARE(record.text, text);
        QCOMPARE(record.priority + ' ' + record.file + ' ' + record.function, QString("err main main"));
        QVERIFY(record.line > 0);
    }

    void ServesInForeground()
    {
        DaemonFixture daemon;
        QVERIFY(daemon.Start({kForeground, "--help"})); // the second option is not looked at
        QVERIFY(daemon.Output().isEmpty());
        QCOMPARE(daemon.Stop(), 0);
        QVERIFY(!DaemonFixture::IsNameOwned());
    }

    void Detaches()
    {
        DaemonFixture daemon;
        QVERIFY(daemon.Launch({"--unknown"}));
        QCOMPARE(daemon.WaitForExit(), 0);
        KX_TRY_VERIFY(DaemonFixture::IsNameOwned());
        QVERIFY(daemon.WaitUntilServing());
        const auto* bus = QDBusConnection::systemBus().interface();
        const auto pid = static_cast<pid_t>(bus->servicePid("com.veltrasys.kx.core").value());
        QCOMPARE(TargetOf(pid, "cwd"), QStringLiteral("/"));
        for (const char* stream : {"fd/0", "fd/1", "fd/2"}) {
            QCOMPARE(TargetOf(pid, stream), QStringLiteral("/dev/null"));
        }
        QCOMPARE(getsid(pid), pid);
        QCOMPARE(kill(pid, SIGTERM), 0);
        KX_TRY_VERIFY(StatusOf(pid).value("State", "Z").startsWith('Z'));
    }

    void LeavesTheNameToTheFirstInstance()
    {
        DaemonFixture first;
        QVERIFY(first.Start());
        // In the foreground and detached, where the status is that of the process that has let go.
        for (const auto& [option, status] : {qMakePair(kForeground, 2), qMakePair(QString("--any"), 0)}) {
            DaemonFixture second;
            QVERIFY(second.Launch({option}));
            QCOMPARE(second.WaitForExit(), status);
            QCOMPARE(second.WaitForRecord("Can't register service").priority, QStringLiteral("err"));
            QVERIFY(first.WaitUntilServing());
        }
        QCOMPARE(first.Stop(), 0);
    }

    void EndsOnTerminationWhileItStarts()
    {
        DaemonFixture daemon;
        daemon.InjectFault("terminate");
        QVERIFY(daemon.Launch({kForeground}));
        QCOMPARE(daemon.WaitForExit(), 0);
    }

    void OutlivesOtherSignals()
    {
        DaemonFixture daemon;
        QVERIFY(daemon.Start());
        for (const int signo : {SIGINT, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2, SIGPIPE, SIGIO, SIGSYS,
                                SIGPWR, SIGRTMIN + 2, SIGRTMAX}) {
            daemon.Signal(signo);
            QVERIFY2(daemon.WaitUntilServing(), qPrintable(QString::number(signo)));
        }
        QCOMPARE(daemon.Stop(), 0);
    }

    void NothingIsOpenToOthersWhateverTheUmask()
    {
        const mode_t own = umask(0);
        DaemonFixture daemon;
        QVERIFY(daemon.Start());
        umask(own);
        for (const char* command :
             {"kernel set 2", "usb --mode serial --full-speed --hub-id hub", "poweroff"}) {
            QCOMPARE(kxtest::RunKxctl(QStringList("system") + QString(command).split(' ')).status, 0);
        }
        for (const char* path : {"/etc/platform/settings/L2KernelsVersion", "/etc/platform/usb_gadget",
                                 "/etc/platform/usb_gadget/serial", "/etc/platform/usbphy0",
                                 "/etc/platform/sys/hubID", "/tmp/kxcore_poweroff"}) {
            struct stat info = {};
            QVERIFY2(stat(path, &info) == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0, path);
        }
        // What all are to write to is, all the same.
        kxtest::InstallApplication("pay", 4002, 4002);
        QCOMPARE(daemon.Enumerate().size(), 1);
        QCOMPARE(OwnerAndMode("/var/run/www/html"), QString("0:0 777"));
        QCOMPARE(daemon.Stop(), 0);
    }
};

QTEST_GUILESS_MAIN(LifecycleTest)
#include "LifecycleTest.moc"
