// What no request leads to, and failures that only the daemon's own code can be made to see.
#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/SignalHandling.h"
#include "server/applications/Server.h"
#include "server/dbus/VectorOfPairSS.h"

#include "WebBrowserProxy.h"

#include <QtTest>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

using namespace com::veltrasys::common::qt;
using core::applications::ProcessManager;
using core::configuration::ApplicationConfig;

namespace {

QByteArray g_failing; ///< the function of the C library that fails

bool Fails(const char* function, int error)
{
    errno = error;
    return g_failing == function;
}

/// Waits for a record.
bool IsLogged(const QByteArray& record)
{
    return QTest::qWaitFor([&] {
        QFile log("/var/log/messages");
        return log.open(QIODevice::ReadOnly) && log.readAll().contains(record);
    });
}

} // namespace

// In place of the C library's; what a child reports to the daemon is as long as an int.
extern "C" ssize_t write(int fd, const void* data, size_t size)
{
    const bool report = size == sizeof(int);
    const size_t count = report && Fails("half", 0) ? 2 : size;
    return report && Fails("write", EIO) ? -1 : syscall(SYS_write, fd, data, count);
}

extern "C" int close(int fd)
{
    const long result = syscall(SYS_close, fd);
    return Fails("close", EIO) ? -1 : static_cast<int>(result);
}

extern "C" char* strdup(const char* text) noexcept
{
    const size_t size = std::strlen(text) + 1;
    return Fails("strdup", ENOMEM) ? nullptr : static_cast<char*>(std::memcpy(std::malloc(size), text, size));
}

/// Is a browser too, which sees values as they arrive from another process.
class UnitTest : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Server")

public slots:
    int ShowPage(const QDBusMessage& call)
    {
        m_call = call;
        return 0;
    }

private slots:
    void initTestCase() { QVERIFY(m_bus.registerObject("/", this, QDBusConnection::ExportAllSlots)); }

    void init() { const LogInitializer handler; } // in the place that QtTest has taken

    void Records()
    {
        qAlert() << "text" << QString("\"%s\"");
        QVERIFY(IsLogged("user.alert unit: platform/kx-core: text \"\\\"%s\\\"\""));
        const QRegularExpression timed(R"(^\[\d\d:\d\d:\d\d\.\d{3}\] Utils - f\(\),3:$)");
        QVERIFY(timed.match(GetPrefix("/a/Utils", "f", 3, true)).hasMatch());
        // Messages, and what follows the tag of their records: they themselves without an arrow.
        for (const QString row :
             {R"(x "F|f|1|" a|b|"c"| -> F:f:1:  a|b|"c"|)", R"("F|f|1| a -> F:f:1: "F|f|1| a)",
              R"("F|f|0|" a)", R"("F|f|x|" a)", R"("F||1|" a)", R"("|f|1|" a)", "F|f|1| a"}) {
            LogInitializer::QtMsgHandler(QtFatalMsg, row.section(" -> ", 0, 0).toLatin1());
            const QString text = row.contains(" -> ") ? row.section(" ->", 1) : ": " + row;
            QVERIFY2(IsLogged("user.debug unit: platform/kx-core" + text.toLatin1() + '\n'), qPrintable(row));
        }
    }

    void Configurations()
    {
        const QVariantMap item{{"form", "f"}, {"iconPath", "i"}, {"iconPosition", -1}, {"title", "%1"}};
        QVariantMap map = ApplicationConfig("pay");
        for (auto entry = map.begin(); entry != map.end(); ++entry) {
            *entry = entry.key() + " text";
        }
        map.insert({{"uid", 4002U}, {"gid", 4003U}, {"fastCgi", true}, {"cgiBinDefault", true}});
        map.insert({{"desktopItems", QVariantList{item, item}}, {"configPages", QVariantList{item}}});
        m_bus.call(QDBusMessage::createMethodCall(m_bus.baseService(), "/", "", "ShowPage") << map);
        ApplicationConfig config(qdbus_cast<QVariantMap>(m_call.arguments().value(0)));
        map["cacertPath"] = QString();
        QCOMPARE(QVariantMap(config), map);
        config.m_cacertPath = "ca"; // copies drop it, moves keep it
        ApplicationConfig assigned("other");
        assigned.m_cacertPath = "other";
        assigned = config;
        QCOMPARE(QVariantMap(assigned), map);
        QCOMPARE(QVariantMap(ApplicationConfig(config)), map);
        map["cacertPath"] = "ca";
        ApplicationConfig moved(std::move(config));
        QCOMPARE(QVariantMap(moved), map);
        assigned = std::move(moved);
        QCOMPARE(QVariantMap(assigned), map);
        const ApplicationConfig odd({{"gid", "abc"}, {"name", 5}, {"desktopItems", QVariantList{1}}});
        QCOMPARE(odd.m_uid + odd.m_gid + odd.m_desktopItems.size(), 0U);
        QCOMPARE(odd.m_name, "5");
        QCOMPARE(ApplicationConfig("pay").m_uid, 4294967295U);
    }

    void Pairs()
    {
        RegisterVectorOfPairSS();
        WebBrowserProxy proxy(m_bus.baseService(), "/", m_bus, nullptr);
        for (const QVectorOfPairSS& pairs : {QVectorOfPairSS(), {{"z", ""}, {"a", "\u00e4"}, {"z", "%1"}}}) {
            QDBusPendingReply<int> reply = proxy.ShowPage("page", pairs);
            QTRY_VERIFY(reply.isFinished() && reply.isValid());
            QCOMPARE(m_call.signature(), "sa{ss}");
            QCOMPARE(qdbus_cast<QVectorOfPairSS>(m_call.arguments().value(1)), pairs);
        }
    }

    void Launches()
    {
        ApplicationConfig config("pay");
        config.m_uid = config.m_gid = 4002;
        // The failing function, whether the program counts as started, exit status of the child, record.
        for (const QString row : {"chdir 1 255 chdir( config.m_homeDir.toLatin1().data() )  errno  2",
                                  "strdup 0 1 GetPosixParameters() memory allocation error",
                                  "strdup 0 1 \"Start: Failed to execute child (Cannot allocate memory)\"",
                                  "write 1 1 write( fd[ 1 ], &err, sizeof( err ) )  errno  5   Input/output",
                                  "half 0 1 Start: Incorrect number of bytes read from pipe: 2",
                                  "close 0 1 function  close( fd[ 1 ] )  errno  5   Input/output error"}) {
            const QStringList columns = row.split(' ');
            g_failing = columns[0].toLatin1();
            config.m_homeDir = g_failing == "chdir" ? "/none" : "/";
            const bool started = ProcessManager().StartProcess("/none 1", config);
            g_failing.clear();
            int status = 0;
            QVERIFY(waitpid(-1, &status, 0) > 0);
            QCOMPARE(QString("%1 %2").arg(started).arg(WEXITSTATUS(status)), row.section(' ', 1, 2));
            QVERIFY2(IsLogged(row.section(' ', 3).toLatin1()), qPrintable(row));
        }
        QVERIFY(ProcessManager().StartProcess("", config));
        config.m_fastCgi = true;
        QVERIFY(QDir().mkpath("/run/sockets") && QFile("/run/sockets/pay").open(QIODevice::WriteOnly));
        QVERIFY(!ProcessManager().StartProcess("", config));
        QVERIFY(IsLogged("Failed to create socket dir dir"));
        QCOMPARE(ProcessManager::TerminateProcess(1, 0), -1);
        QVERIFY(IsLogged("TerminateProcess: invalid PID"));
        QString name("pay");
        QCOMPARE(core::applications::Server().PathToURI("./none", name), "");
        QVERIFY(IsLogged("Requested form doesn't exist ( \"./none\" ) errno: 2"));
    }

    void Signals()
    {
        SignalHandlerSet({99, SIGALRM}, {SIGKILL}, sigHandler);
        for (const int signo : {SIGALRM, SIGCHLD}) {
            struct sigaction action = {};
            sigaction(signo, nullptr, &action);
            QVERIFY(action.sa_handler == sigHandler && sigismember(&action.sa_mask, SIGALRM) == 1);
            const int flags = signo == SIGCHLD ? SA_RESTART | SA_NOCLDSTOP : SA_RESTART;
            QCOMPARE(action.sa_flags & (SA_RESTART | SA_NOCLDSTOP), flags);
        }
        QVERIFY(IsLogged("Could not add signal 99 (Invalid argument)"));
        QVERIFY(IsLogged("user.err unit: Could not change signal action signal 99 (Invalid argument)"));
        QVERIFY(IsLogged("user.err unit: Could not change signal action signal 9 (Invalid argument)"));
    }

    // The bus has a thread, which handles the signal of a child while the shell command is waited for.
    void ShellCommands()
    {
        Misc::g_ignore_sigChld = 1;
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        siginfo_t ended = {};
        waitid(P_PID, child, &ended, WEXITED | WNOWAIT);
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(Misc::ExecShell("exit 200"), 200);
        }
        QVERIFY(waitpid(child, nullptr, 0) < 0 && Misc::g_ignore_sigChld == 0);
    }

private:
    QDBusConnection m_bus = QDBusConnection::systemBus();
    QDBusMessage m_call; ///< that the browser had last
};

QTEST_GUILESS_MAIN(UnitTest)
#include "tst_unit.moc"
