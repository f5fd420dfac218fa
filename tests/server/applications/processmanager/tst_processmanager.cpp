#include "server/applications/processmanager/ProcessManager.h"

#include "FailingCall.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include "misc/UniqueFd.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

using core::applications::ProcessManager;
using core::configuration::ApplicationConfig;

namespace {

constexpr int kNoChild = -1;
constexpr int kRuns = -2;

ApplicationConfig Pay()
{
    ApplicationConfig config("pay");
    config.m_uid = 4002;
    config.m_gid = 4002;
    config.m_userName = "pay";
    return config;
}

/// Ends the one child there is and takes its status.
/// \return the exit status; kRuns if the child had to be killed, kNoChild if there was none
int EndChild()
{
    const pid_t child = Children().value(0);
    if (child == 0) {
        return kNoChild;
    }
    // Until it executes its program or ends it is a copy of this process. Asked for in the usual place, an
    // emulator would hide itself from the process that it runs.
    const QByteArray inTask = "task/" + QByteArray::number(getpid()) + "/cmdline";
    const QList<QByteArray> own = EntriesOf(getpid(), inTask.constData());
    if (!QTest::qWaitFor([&] { return EntriesOf(child, "cmdline") != own; })) {
        qWarning("the child hangs");
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : kRuns;
}

QString Step(const char* call, int error, const char* end = "")
{
    return QStringLiteral("3 StartProcess  function  %1  errno  %2   %3%4")
        .arg(call, QString::number(error), std::strerror(error), end);
}

QString FatalStep(const char* call, int error = EPERM)
{
    return Step(call, error, "  failed. Fatal error - exit");
}

QString Quoted(const char* text)
{
    return QStringLiteral("3 StartProcess \"%1\"").arg(text);
}

} // namespace

class ProcessManagerTest : public Fixture {
    Q_OBJECT

private slots:
    void init()
    {
        Fixture::init();
        for (const char* path : {"/tmp/pay", "/shared", "/var/run/sockets", "/home/pay"}) {
            RemoveAll(path);
        }
        m_manager = ProcessManager();
        MakeDirectory("/home/pay", 4002, 4002, 0750);
        CopyProgram("/bin/sleep", "/home/pay/bin/app");
        WriteFile("/home/pay/bin/plain", "text");
    }

    void cleanup() { EndChild(); }

    void Environment()
    {
        qputenv("KX_KEPT", "a=b");
        qputenv("USER", "root");
        qunsetenv("OLDPWD");
        ApplicationConfig config = Pay();
        config.m_userName = "p%1\u00e4";
        auto expected = QProcessEnvironment::systemEnvironment();
        expected.insert("APP_NAME", "pay");
        for (const char* home : {"APP_HOME_DIR", "HOME", "OLDPWD"}) {
            expected.insert(home, "/home/pay");
        }
        expected.insert("APP_TMP_DIR", "/tmp/pay");
        expected.insert("USER", config.m_userName);
        expected.insert("LOGNAME", config.m_userName);
        expected.insert("APP_SHARED_DIR", "/shared");
        for (const bool fastCgi : {false, true}) {
            config.m_fastCgi = fastCgi;
            if (fastCgi) {
                expected.insert("APP_FASTCGI_SOCKET", "/var/run/sockets/pay/fcgi");
            }
            QVERIFY(m_manager.StartProcess("/home/pay/bin/app 60", config));
            QStringList variables;
            for (const QByteArray& variable : EntriesOf(Children().value(0), "environ")) {
                variables.append(QString::fromUtf8(variable));
            }
            EndChild();
            QStringList expectedVariables = expected.toStringList();
            variables.sort();
            expectedVariables.sort();
            QCOMPARE(variables, expectedVariables);
        }
        QCOMPARE(qgetenv("USER"), QByteArray("root"));
    }

    void TerminalIsNotInherited()
    {
        WriteFile("/home/pay/bin/look",
                  "#!/bin/sh\nexec >$APP_TMP_DIR/seen\nreadlink /proc/$$/fd/0 /proc/$$/fd/2\n"
                  "cut -d ' ' -f 7 /proc/$$/stat\n",
                  4002, 4002, 0755);
        int terminal = -1;
        const pid_t foreground = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (foreground == 0) {
            ProcessManager().StartProcess("/home/pay/bin/look", Pay());
            _exit(waitpid(-1, nullptr, 0) > 0 ? 0 : 1);
        }
        int status = -1;
        waitpid(foreground, &status, 0);
        close(terminal);
        QCOMPARE(status, 0);
        QCOMPARE(ReadFile("/tmp/pay/seen"), QByteArray("/dev/null\n/dev/null\n0\n"));
    }

    void CommandLines()
    {
        for (const auto& [command, arguments] : QVector<QPair<QString, QByteArray>>{
                 {"/home/pay/bin/app  60   1 ", "/home/pay/bin/app|60|1"},
                 {"/bin/sh -c sleep\t60;'exit'", "/bin/sh|-c|sleep\t60;'exit'"},
                 {" /home/pay/bin/app 60", ""}, // no program
                 {"", ""}}) {
            QVERIFY(m_manager.StartProcess(command, Pay()));
            QCOMPARE(EntriesOf(Children().value(0, -1), "cmdline").join('|'), arguments);
            EndChild();
        }
    }

    void ArgumentVectors()
    {
        const auto build = [](const QString& program, const QString& params) {
            char** argv = ProcessManager::GetPosixParameters(program, params);
            QList<QByteArray> arguments;
            for (char** argument = argv; argv != nullptr && *argument != nullptr; ++argument) {
                arguments.append(*argument);
            }
            ProcessManager::FreePosixParameters(argv);
            return arguments;
        };
        QCOMPARE(build("/\u00e4", "\u00e4"), QList<QByteArray>({"/\xc3\xa4", "\xe4"}));
        QCOMPARE(build("", "-a"), QList<QByteArray>());
        for (int copies = 0; copies < 3; ++copies) {
            const FailingCall failure("strdup", ENOMEM, copies);
            QCOMPARE(build("/p", "-a -b"), QList<QByteArray>());
        }
    }

    void Failures_data()
    {
        const Table<QByteArray, QByteArray, int, bool, int, QStringList> table;
        const auto row = [&](const QByteArray& program, const QByteArray& call, int error, bool result,
                             int status, const QStringList& log) {
            table(program + ", " + call + ", " + QByteArray::number(error), program, call, error, result,
                  status, log);
        };
        const QString reported = Quoted("Start: Failed to execute child (Permission denied)");
        const QString notExecuted = Quoted("Start: Failed to execute process (Permission denied) 13");
        const char* writeStep = "write( fd[ 1 ], &err, sizeof( err ) )";
        row("app", "pipe", EMFILE, false, kNoChild,
            {Quoted("Start: Error creating pipe (Too many open files)")});
        row("app", "fcntl", EIO, false, kNoChild,
            {"3 StartProcess Failed to start application, fcntl errno= 5   Input/output error"});
        row("app", "fork", EAGAIN, false, kNoChild,
            {Quoted("Start: Failed to fork (Resource temporarily unavailable)")});
        row("app", "read", EIO, false, kRuns,
            {Quoted("Start: Error reading from pipe (Input/output error)")});
        row("app", "setgroups", EPERM, true, kRuns,
            {Quoted("Start: initgroups() call failed (Operation not permitted)")});
        row("app", "prctl", EPERM, true, 255, {FatalStep("prctl( PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L )")});
        row("app", "setgid", EPERM, true, 255, {FatalStep("setgid( config.m_gid )")});
        row("app", "setegid", EPERM, true, 255, {FatalStep("setegid( config.m_gid )")});
        row("app", "setuid", EPERM, true, 255, {FatalStep("setuid( config.m_uid )")});
        row("app", "seteuid", EPERM, true, 255, {FatalStep("seteuid ( config.m_uid )")});
        row("app", "setpgid", EPERM, true, 255, {FatalStep("setpgid ( 0, 0 )")});
        row("app", "strdup", ENOMEM, false, 1,
            {"3 StartProcess GetPosixParameters() memory allocation error",
             Quoted("Start: Failed to execute child (Cannot allocate memory)")});
        row("none", "", 0, false, 1,
            {Quoted("Start: Failed to execute process (No such file or directory) 2"),
             Quoted("Start: Failed to execute child (No such file or directory)")});
        row("plain", "", 0, false, 1, {notExecuted, reported});
        row("plain", "close", EIO, false, 1, {notExecuted, Step("close( fd[ 1 ] )", EIO), reported});
        row("plain", "write", EIO, true, 1, {notExecuted, Step(writeStep, EIO)});
        row("plain", "write", FailingCall::kHalfDone, false, 1,
            {notExecuted, Step(writeStep, 0),
             "3 StartProcess Start: Incorrect number of bytes read from pipe: 2"});
    }

    void Failures()
    {
        auto [program, call, error, result, status, log] =
            FetchRow<QByteArray, QByteArray, int, bool, int, QStringList>();
        {
            const int others = call == "close" ? 1 : 0; // the child closes the end that it does not use first
            const FailingCall failure(call.constData(), error, others);
            QCOMPARE(m_manager.StartProcess("/home/pay/bin/" + program + " 60", Pay()), result);
        }
        QCOMPARE(EndChild(), status);
        QStringList logged = TakeLogLines();
        log.sort(); // parent and child log side by side
        logged.sort();
        QCOMPARE(logged, log);
    }

    void UnknownGroupsLeaveTheOwnOne()
    {
        const FailingCall failure("getgrouplist", ENOMEM);
        QVERIFY(m_manager.StartProcess("/home/pay/bin/app 60", Pay()));
        QCOMPARE(StatusOf(Children().value(0)).value("Groups"), QByteArray("4002"));
    }

    void ChildThatIsHeldBackIsKilled()
    {
        const UniqueFd program(open("/home/pay/bin/app", O_RDWR | O_CLOEXEC));
        static_cast<void>(std::signal(SIGIO, SIG_IGN));
        QCOMPARE(fcntl(program.Get(), F_SETLEASE, F_WRLCK), 0); // longer than poll would wait
        {
            const FailingCall timeOut("poll", 0);
            QVERIFY(!m_manager.StartProcess("/home/pay/bin/app 60", Pay()));
        }
        int status = 0;
        QVERIFY(QTest::qWaitFor([&] { return waitpid(-1, &status, WNOHANG) > 0; }));
        QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        QCOMPARE(TakeLogLines(),
                 QStringList(Quoted("Start: Error reading from pipe (Connection timed out)")));
    }

    void MissingHomeAndUnknownIdentityShowInTheLogOnly()
    {
        ApplicationConfig config = Pay();
        config.m_homeDir = "/home/none";
        QVERIFY(m_manager.StartProcess("/bin/true", config));
        QCOMPARE(EndChild(), 255);
        QVERIFY(m_manager.StartProcess("/bin/true", ApplicationConfig("pay")));
        QCOMPARE(EndChild(), 255);
        QCOMPARE(TakeLogLines(),
                 QStringList({FatalStep("chdir( config.m_homeDir.toLatin1().data() )", ENOENT),
                              Quoted("Start: initgroups() call failed (Invalid argument)"),
                              FatalStep("setgid( config.m_gid )", EINVAL)}));
    }

    void HomeOutsideUtf8IsEnteredOnce()
    {
        ApplicationConfig config = Pay();
        config.m_homeDir = "/home/p\u00e4y";
        QCOMPARE(mkdir("/home/p\xe4y", 0755), 0);
        QVERIFY(m_manager.StartProcess("/home/pay/bin/app 60", config));
        QCOMPARE(TakeLogLines(), QStringList(Step("chdir ( config.m_homeDir.toUtf8().data() )", ENOENT)));
        const QByteArray cwd = "/proc/" + QByteArray::number(Children().value(0)) + "/cwd";
        std::array<char, 64> target{};
        QCOMPARE(readlink(cwd.constData(), target.data(), target.size()), ssize_t{9});
        QCOMPARE(QByteArray(target.data()), QByteArray("/home/p\xe4y"));
    }

    void DirectoriesArePreparedOnceInARow()
    {
        ApplicationConfig config = Pay();
        QVERIFY(ProcessManager::PrepareEnviornment(config));
        QVERIFY(!QFileInfo::exists("/var/run/sockets/pay"));
        config.m_fastCgi = true;
        const mode_t before = umask(0777);
        const bool prepared = m_manager.StartProcess("", config);
        umask(before);
        QVERIFY(prepared);
        QCOMPARE(OwnerAndMode("/tmp/pay"), QStringLiteral("4002:4002 770"));
        QCOMPARE(OwnerAndMode("/shared"), QStringLiteral("0:0 777"));
        QCOMPARE(OwnerAndMode("/var/run/sockets/pay"), QStringLiteral("4002:4002 770"));

        const auto isPreparedAgain = [&] {
            RemoveAll("/tmp/pay");
            m_manager.StartProcess("", config);
            return QFileInfo::exists("/tmp/pay");
        };
        QVERIFY(!isPreparedAgain());
        m_manager.StartProcess("", ApplicationConfig("shop"));
        QVERIFY(isPreparedAgain());
        QVERIFY(!isPreparedAgain());
        m_manager.TerminateApps();
        QVERIFY(isPreparedAgain());
    }

    void DirectoryFailures_data()
    {
        const Table<QString, QStringList> row;
        const QString notOwned("3 CreateDirIfNeeded Failed to create dir =  20");
        row("tmp", "/tmp/pay", {notOwned, "3 PrepareEnviornment Failed to create tmp dir"});
        row("shared", "/shared", {"3 PrepareEnviornment Failed to create shared dir"});
        row("sockets", "/var/run/sockets", {"3 PrepareEnviornment Failed to create socket dir dir"});
    }

    void DirectoryFailures()
    {
        const auto [obstacle, log] = FetchRow<QString, QStringList>();
        if (obstacle == "/tmp/pay") {
            MakeLink("/etc", obstacle, 4002); // the application's idea of its directory
        } else {
            WriteFile(obstacle);
        }
        ApplicationConfig config = Pay();
        config.m_fastCgi = true;
        QVERIFY(!m_manager.StartProcess("/home/pay/bin/app 60", config));
        QCOMPARE(TakeLogLines(), log);
        QCOMPARE(OwnerAndMode("/etc"), QStringLiteral("0:0 755"));
        QCOMPARE(Children(), QList<pid_t>());
    }

private:
    ProcessManager m_manager;
};

KX_TEST_MAIN(ProcessManagerTest)
#include "tst_processmanager.moc"
