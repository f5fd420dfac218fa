// Prefixes and priorities of records, and failures that only the daemon's own code can be made to see.
#include "misc/Log.h"
#include "server/SignalHandling.h"
#include "server/applications/processmanager/ProcessManager.h"

#include <QtTest>

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

using namespace com::veltrasys::common::qt;

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
    return report && Fails("write", EIO)
               ? -1
               : syscall(SYS_write, fd, data, report && Fails("half", 0) ? 2 : size);
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

class FailuresTest : public QObject {
    Q_OBJECT

private slots:
    void init() { const LogInitializer handler; } // in the place that QtTest has taken

    void Records()
    {
        qAlert() << "text" << QString("\"%s\"");
        QVERIFY(IsLogged("user.alert unit_failures: platform/kx-core: text \"\\\"%s\\\"\""));
        QDebug(qCritical()) << GetPrefix("/a/Utils", "f", 340, false) << "a|b \"c\"";
        QVERIFY(IsLogged("user.crit unit_failures: platform/kx-core Utils:f:340:  a|b \"c\""));
        LogInitializer::QtMsgHandler(QtFatalMsg, "fatal");
        QVERIFY(IsLogged("user.debug unit_failures: platform/kx-core: fatal"));
        const QRegularExpression timed(R"(^\[\d\d:\d\d:\d\d\.\d{3}\] Utils - f\(\),3:$)");
        QVERIFY(timed.match(GetPrefix("/a/Utils", "f", 3, true)).hasMatch());
        for (const auto& [message, parts] :
             QVector<QPair<QString, QString>>{{"x \"F|f|1|\" a|b|\"c\"|", "F/f/1/ a|b|\"c\"|"},
                                              {"\"F|f|1| text", "F/f/1/\"F|f|1| text"},
                                              {"\"F|f|0|\" text", ""},
                                              {"\"F|f|x|\" text", ""},
                                              {"\"F||1|\" text", ""},
                                              {"\"|f|1|\" text", ""},
                                              {"F|f|1| text", ""}}) {
            QString file;
            QString function;
            QString text;
            int line = 0;
            const bool split = LogInitializer::SplitMsg(message, file, function, line, text);
            const QStringList found{file, function, QString::number(line), text};
            QCOMPARE(split ? found.join('/') : "", parts);
        }
    }

    void SignalsThatCannotBeSet()
    {
        SignalHandlerSet({99, SIGALRM}, {SIGKILL}, sigHandler);
        struct sigaction added = {};
        sigaction(SIGCHLD, nullptr, &added);
        QVERIFY(added.sa_handler == sigHandler && (added.sa_flags & SA_NOCLDSTOP) != 0);
        QVERIFY(IsLogged("user.err unit_failures: Could not add signal 99 (Invalid argument)"));
        QVERIFY(
            IsLogged("user.err unit_failures: Could not change signal action signal 99 (Invalid argument)"));
        QVERIFY(
            IsLogged("user.err unit_failures: Could not change signal action signal 9 (Invalid argument)"));
    }

    void LaunchesThatFail()
    {
        core::configuration::ApplicationConfig config("pay");
        config.m_uid = config.m_gid = 4002;
        QVERIFY(QDir().mkpath("/home/pay"));
        for (const auto& [failing, result, record] : std::vector<std::tuple<const char*, bool, const char*>>{
                 {"strdup", false, "GetPosixParameters() memory allocation error"},
                 {"strdup", false, "\"Start: Failed to execute child (Cannot allocate memory)\""},
                 {"write", true,
                  "function  write( fd[ 1 ], &err, sizeof( err ) )  errno  5   Input/output error"},
                 {"half", false, "Start: Incorrect number of bytes read from pipe: 2"},
                 {"close", false, "function  close( fd[ 1 ] )  errno  5   Input/output error"}}) {
            g_failing = failing;
            const bool started = core::applications::ProcessManager().StartProcess("/none 1", config);
            g_failing.clear();
            QCOMPARE(started, result);
            QVERIFY2(IsLogged(record), record);
        }
    }
};

QTEST_GUILESS_MAIN(FailuresTest)
#include "tst_failures.moc"
