// What no request leads to, and failures that only the daemon's own code can be made to see.
#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/SignalHandling.h"
#include "server/applications/Server.h"
#include "server/dbus/VectorOfPairSS.h"

#include "WebBrowserProxy.h"

#include <QtTest>

#include <sys/wait.h>

#include <csignal>
#include <cstring>

using namespace com::veltrasys::common::qt;
using core::applications::ProcessManager;
using core::configuration::ApplicationConfig;

namespace {

bool g_hasMemory = true;

/// Waits for a record.
bool IsLogged(const QByteArray& record)
{
    return QTest::qWaitFor([&] {
        QFile log("/var/log/messages");
        return log.open(QIODevice::ReadOnly) && log.readAll().contains(record);
    });
}

} // namespace

// In place of the C library's.
extern "C" char* strdup(const char* s) noexcept
{
    return g_hasMemory ? strndup(s, std::strlen(s)) : nullptr;
}

/// Is a browser too, which sees values as they arrive from another process.
class UnitTest : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Server")

public slots:
    void ShowPage(const QDBusMessage& call) { m_call = call; }

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
             {R"(x "F|f|1|" a|b|"c"| -> F:f:1:  a|b|"c"|)", R"("F|f|0|" a)", R"("|f|1|" a)",
              R"("F|f|1| a -> F:f:1: "F|f|1| a)", R"("F||1|" a)", "F|f|1| a"}) {
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
        ApplicationConfig other("other");
        other = config;
        QCOMPARE(QVariantMap(other), map);
        map["cacertPath"] = "ca";
        other = std::move(config);
        QCOMPARE(QVariantMap(ApplicationConfig(std::move(other))), map);
        QCOMPARE(ApplicationConfig(QVariantMap()).m_uid, 0U);
    }

    void Pairs()
    {
        RegisterVectorOfPairSS();
        const QVectorOfPairSS pairs{{"z", ""}, {"a", "\u00e4"}, {"z", "%1"}};
        WebBrowserProxy(m_bus.baseService(), "/", m_bus, nullptr).ShowPage("page", pairs).waitForFinished();
        QCOMPARE(m_call.signature(), "sa{ss}");
        QCOMPARE(qdbus_cast<QVectorOfPairSS>(m_call.arguments().value(1)), pairs);
    }

    void Launches()
    {
        ApplicationConfig config("pay");
        config.m_uid = config.m_gid = 4002;
        int status = 0;
        QVERIFY(ProcessManager().StartProcess("/none", config) && wait(&status) > 0); // there is no home
        QCOMPARE(WEXITSTATUS(status), 255);
        config.m_homeDir = "/";
        g_hasMemory = false;
        QVERIFY(!ProcessManager().StartProcess("/none", config) && wait(&status) > 0);
        g_hasMemory = true;
        QVERIFY(WEXITSTATUS(status) == 1 && IsLogged("GetPosixParameters() memory allocation error"));
        QVERIFY(IsLogged("\"Start: Failed to execute child (Cannot allocate memory)\""));
        config.m_name = QString(256, 'n'); // too long for a directory of sockets
        QVERIFY(ProcessManager().StartProcess("", config));
        config.m_fastCgi = true;
        QVERIFY(!ProcessManager().StartProcess("", config) && IsLogged("Failed to create socket dir dir"));
        QVERIFY(ProcessManager::TerminateProcess(1, 0) < 0 && IsLogged("TerminateProcess: invalid PID"));
        QString name("pay");
        QCOMPARE(core::applications::Server().PathToURI("./none", name), "");
        QVERIFY(IsLogged("Requested form doesn't exist ( \"./none\" ) errno: 2"));
    }

    void Signals()
    {
        SignalHandlerSet({99, SIGALRM}, {SIGKILL}, sigHandler);
        for (const auto& [signo, flags] : {std::pair(SIGALRM, 0), std::pair(SIGCHLD, SA_NOCLDSTOP)}) {
            struct sigaction action = {};
            sigaction(signo, nullptr, &action);
            QVERIFY(action.sa_handler == sigHandler && sigismember(&action.sa_mask, SIGALRM) == 1);
            QCOMPARE(action.sa_flags & (SA_RESTART | SA_NOCLDSTOP), SA_RESTART | flags);
        }
        QVERIFY(IsLogged("user.err unit: Could not add signal 99 (Invalid argument)"));
        QVERIFY(IsLogged("user.err unit: Could not change signal action signal 9 (Invalid argument)"));
        errno = EXDEV;
        sigHandler(SIGCHLD); // there is no child
        QCOMPARE(errno, EXDEV);
        // The bus has a thread, which handles the signal of a shell while this one waits for the shell.
        Misc::g_ignore_sigChld = 1;
        QVERIFY(ProcessManager().StartProcess("/none", ApplicationConfig("pay"))); // ends at once
        waitid(P_ALL, 0, nullptr, WEXITED | WNOWAIT);
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(Misc::ExecShell("exit 200"), 200);
        }
        QVERIFY(waitpid(-1, nullptr, 0) < 0 && Misc::g_ignore_sigChld == 0);
    }

private:
    QDBusConnection m_bus = QDBusConnection::systemBus();
    QDBusMessage m_call; ///< that the browser had last
};

QTEST_GUILESS_MAIN(UnitTest)
#include "tst_unit.moc"
