#include "DaemonFixture.h"

#include <QFileInfo>

#include <sys/socket.h>

#include <csignal>

using kxtest::DaemonFixture;
using kxtest::LogRecord;

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
    void PrintsUsage_data();
    void PrintsUsage();
    void FailsToStart_data();
    void FailsToStart();
    void ServesInForeground();
    void Detaches();
    void LeavesTheNameToTheFirstInstance_data();
    void LeavesTheNameToTheFirstInstance();
    void EndsOnTermination_data();
    void EndsOnTermination();
    void OutlivesOtherSignals();
};

void LifecycleTest::PrintsUsage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("alone") << QStringList{"--help"};
    QTest::newRow("only the first argument counts") << QStringList{"--help", "--no-daemon"};
}

void LifecycleTest::PrintsUsage()
{
    QFETCH(QStringList, arguments);
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

void LifecycleTest::FailsToStart_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");
    QTest::newRow("daemon") << "daemon"
                            << "--any" << 1 << "Cannot daemonize process";
    QTest::newRow("name") << "registerService" << kForeground << 2 << "Can't register service";
    for (const char* object : {"/Applications", "/System", "/Tools"}) {
        QTest::newRow(object) << QString("registerObject:") + object << kForeground << 3
                              << QString("Can't register object ") + object;
    }
    QTest::newRow("exception") << "throw" << kForeground << 4 << "Unexpected exception";
}

void LifecycleTest::FailsToStart()
{
    QFETCH(QString, fault);
    QFETCH(QString, option);
    QFETCH(QString, text);
    DaemonFixture daemon;
    daemon.InjectFault(fault);
    QVERIFY(daemon.Launch({option}));
    QTEST(daemon.WaitForExit(), "status");

    const LogRecord record = daemon.WaitForRecord(text);
    QCOMPARE(record.text, text);
    QCOMPARE(record.priority, QStringLiteral("err"));
    QCOMPARE(record.file, QStringLiteral("main"));
    QCOMPARE(record.function, QStringLiteral("main"));
    QVERIFY(record.line > 0);
}

void LifecycleTest::ServesInForeground()
{
    DaemonFixture daemon;
    // The second option is not looked at.
    QVERIFY(daemon.Start({kForeground, "--help"}));
    QVERIFY(daemon.Output().isEmpty());
    QCOMPARE(daemon.Stop(), 0);
    QVERIFY(!DaemonFixture::IsNameOwned());
}

void LifecycleTest::Detaches()
{
    if (!DaemonFixture::AdoptsOrphans()) {
        QSKIP("the daemon would be out of reach");
    }
    DaemonFixture daemon;
    QVERIFY(daemon.LaunchDetached({"--unknown"}));
    QVERIFY(daemon.WaitUntilServing());
    QCOMPARE(TargetOf(daemon.Pid(), "cwd"), QStringLiteral("/"));
    for (const char* stream : {"fd/0", "fd/1", "fd/2"}) {
        QCOMPARE(TargetOf(daemon.Pid(), stream), QStringLiteral("/dev/null"));
    }
    QCOMPARE(getsid(daemon.Pid()), daemon.Pid());
    QCOMPARE(daemon.Stop(), 0);
}

void LifecycleTest::LeavesTheNameToTheFirstInstance_data()
{
    QTest::addColumn<QString>("option");
    QTest::newRow("in the foreground") << kForeground;
    QTest::newRow("detached") << "--any";
}

void LifecycleTest::LeavesTheNameToTheFirstInstance()
{
    QFETCH(QString, option);
    if (option != kForeground && !DaemonFixture::AdoptsOrphans()) {
        QSKIP("the second daemon would be out of reach");
    }
    DaemonFixture first;
    QVERIFY(first.Start());
    DaemonFixture second;
    QVERIFY(option == kForeground ? second.Launch({option}) : second.LaunchDetached({option}));
    QCOMPARE(second.WaitForExit(), 2);
    QCOMPARE(second.WaitForRecord("Can't register service").priority, QStringLiteral("err"));
    QVERIFY(first.WaitUntilServing());
    QCOMPARE(first.Stop(), 0);
}

void LifecycleTest::EndsOnTermination_data()
{
    QTest::addColumn<QString>("fault");
    QTest::newRow("while serving") << "";
    QTest::newRow("while starting") << "terminate";
}

void LifecycleTest::EndsOnTermination()
{
    QFETCH(QString, fault);
    DaemonFixture daemon;
    if (fault.isEmpty()) {
        QVERIFY(daemon.Start());
        daemon.Signal(SIGTERM);
    } else {
        daemon.InjectFault(fault);
        QVERIFY(daemon.Launch({kForeground}));
    }
    QCOMPARE(daemon.WaitForExit(), 0);
}

void LifecycleTest::OutlivesOtherSignals()
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

QTEST_GUILESS_MAIN(LifecycleTest)
#include "LifecycleTest.moc"
