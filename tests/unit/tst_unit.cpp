// What cannot be seen from outside: values that travel over the bus, prefixes and priorities of records, and
// failures that only the daemon's own code can be made to see.
#include "misc/Log.h"
#include "server/SignalHandling.h"
#include "server/applications/appconf/ApplicationConfig.h"
#include "server/applications/processmanager/ProcessManager.h"
#include "server/dbus/VectorOfPairSS.h"

#include "WebBrowserProxy.h"

#include <QtTest>

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

using namespace com::veltrasys::common::qt;
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

/// A browser, which sees values as they arrive from another process.
class Browser : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Server")

public:
    QDBusMessage m_call; ///< the last one

public slots:
    void ShowPage(const QDBusMessage& call)
    {
        m_call = call;
        QDBusConnection("browser").send(call.createReply(0));
    }
};

/// A record in which every field has a value of its own.
QVariantMap Filled()
{
    const QVariantMap item{{"form", "f"}, {"iconPath", "i"}, {"iconPosition", -1}, {"title", "%1"}};
    QVariantMap map = ApplicationConfig("pay");
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        *entry = entry.key() + " text";
    }
    map["uid"] = 4002U;
    map["gid"] = 4003U;
    map["fastCgi"] = map["cgiBinDefault"] = true;
    map["desktopItems"] = QVariantList{item, item};
    map["configPages"] = QVariantList{item};
    return map;
}

QVariantMap WithoutCertificate(QVariantMap map)
{
    map["cacertPath"] = QString();
    return map;
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

class UnitTest : public QObject {
    Q_OBJECT

private slots:
    void init() { const LogInitializer handler; } // in the place that QtTest has taken

    void Records()
    {
        qAlert() << "text" << QString("\"%s\"");
        QVERIFY(IsLogged("user.alert unit: platform/kx-core: text \"\\\"%s\\\"\""));
        QDebug(qCritical()) << GetPrefix("/a/Utils", "f", 340, false) << "a|b \"c\"";
        QVERIFY(IsLogged("user.crit unit: platform/kx-core Utils:f:340:  a|b \"c\""));
        LogInitializer::QtMsgHandler(QtFatalMsg, "fatal");
        QVERIFY(IsLogged("user.debug unit: platform/kx-core: fatal"));
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
        for (const char* record :
             {"add signal 99", "change signal action signal 99", "change signal action signal 9"}) {
            QVERIFY(IsLogged(QByteArray("user.err unit: Could not ") + record + " (Invalid argument)"));
        }
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

    void initTestCase()
    {
        QDir().mkpath("/etc/dbus-1/system.d");
        QFile policy("/etc/dbus-1/system.d/test.conf");
        QVERIFY(policy.open(QIODevice::WriteOnly));
        policy.write("<busconfig><policy user='root'><allow send_destination='*'/></policy></busconfig>");
        policy.close();
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, "browser");
        bus.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                                "ReloadConfig"));
        QVERIFY(bus.registerObject("/", &m_browser, QDBusConnection::ExportAllSlots));
    }

    void RecordsAreReadFromMaps()
    {
        const auto received = Received(Filled());
        QCOMPARE(received.size(), 23);
        QCOMPARE(QVariantMap(ApplicationConfig(received)), WithoutCertificate(Filled()));
        const ApplicationConfig wrong(
            QVariantMap{{"uid", "abc"}, {"name", 5}, {"desktopItems", QVariantList{1}}});
        QCOMPARE(wrong.m_uid + wrong.m_gid + wrong.m_desktopItems.size(), 0U);
        QCOMPARE(wrong.m_name, "5");
        QCOMPARE(ApplicationConfig("pay").m_uid, 4294967295U);
    }

    void CopiesDropTheCertificateAndMovesKeepIt()
    {
        ApplicationConfig record(Received(Filled()));
        record.m_cacertPath = "ca";
        const QVariantMap original = record;
        ApplicationConfig assigned("other");
        assigned.m_cacertPath = "other";
        assigned = record;
        QCOMPARE(QVariantMap(ApplicationConfig(record)), WithoutCertificate(original));
        QCOMPARE(QVariantMap(assigned), WithoutCertificate(original));
        ApplicationConfig moved(std::move(record));
        QCOMPARE(QVariantMap(moved), original);
        assigned = std::move(moved);
        QCOMPARE(QVariantMap(assigned), original);
    }

    void PairsKeepOrderAndDuplicates()
    {
        RegisterVectorOfPairSS();
        QVERIFY(QMetaType::type("QVectorOfPairSS") != QMetaType::UnknownType);
        WebBrowserProxy proxy(QDBusConnection("browser").baseService(), "/", QDBusConnection::systemBus(),
                              nullptr);
        for (const QVectorOfPairSS& pairs : {QVectorOfPairSS(), {{"z", ""}, {"a", "\u00e4"}, {"z", "%1"}}}) {
            QDBusPendingReply<int> reply = proxy.ShowPage("page", pairs);
            QTRY_VERIFY(reply.isFinished());
            QVERIFY2(reply.isValid(), qPrintable(reply.error().message()));
            QCOMPARE(m_browser.m_call.signature(), "sa{ss}");
            QCOMPARE(qdbus_cast<QVectorOfPairSS>(m_browser.m_call.arguments().value(1)), pairs);
        }
    }

private:
    QVariantMap Received(const QVariantMap& map) const
    {
        auto call =
            QDBusMessage::createMethodCall(QDBusConnection("browser").baseService(), "/", "", "ShowPage");
        QDBusConnection::systemBus().call(call << map, QDBus::BlockWithGui);
        return qdbus_cast<QVariantMap>(m_browser.m_call.arguments().value(0));
    }

    Browser m_browser;
};

QTEST_GUILESS_MAIN(UnitTest)
#include "tst_unit.moc"
