#include "CommandRun.h"
#include "DaemonFixture.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

#include <unistd.h>

#include <cstdio>

using kxtest::DaemonFixture;

// Each case runs this program once more under the account of the caller, see main.

namespace {

const QString kService = QStringLiteral("com.veltrasys.kx.core");
const QString kCaller = QStringLiteral("/tmp/caller");
const QString kRefused = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");

/// From the least trusted on. Who is trusted more may do what those before may.
enum Caller { Application, GroupMember, Administrator, Root };
const QStringList kAccounts{"pay", "clerk", "admin", "root"};

struct Call {
    Caller from; ///< the first who may
    QString object;
    QString interface; ///< empty for a call that names none
    QString member;
    QVariantList arguments;
    QString result; ///< the types of what is answered
};

Call Applications(const char* member, const char* result, const QVariantList& arguments = {})
{
    return {GroupMember, "/Applications", kService + ".Applications", member, arguments, result};
}

Call System(int id)
{
    return {Administrator, "/System", kService + ".System", "SystemCall", {id, QVariantMap()}, "a{sv}"};
}

Call Tools(Caller from, const char* member, const char* result, const QVariantList& arguments = {})
{
    return {from, "/Tools", kService + ".Tools", member, arguments, result};
}

Call Standard(Caller from, const char* interface, const char* member, const char* result,
              const QVariantList& arguments = {})
{
    return {from, "/System", QStringLiteral("org.freedesktop.DBus.") + interface, member, arguments, result};
}

/// Every method there is, with arguments that change nothing where that is possible.
const QVector<Call>& Calls()
{
    static const QVector<Call> calls{
        Applications("Enumerate", "aa{sv}"),
        Applications("Start", "a{sv}", {QVariantMap{{"application", "none"}}}),
        Applications("Terminate", ""),
        Applications("Restart", "", {""}),
        System(42),
        System(1),
        System(101),
        Tools(Administrator, "SetSystemTime", "i", {""}),
        Tools(Administrator, "SetTimeZone", "i", {"none"}),
        Tools(Administrator, "SetTimeInfo", "i", {"", "", "none"}),
        Tools(Administrator, "ResetTimeInfoSource", "i"),
        Tools(Administrator, "SaveVariableValue", "i", {"NAME", "value"}),
        Tools(Administrator, "EnableAudiopayd", "", {true}),
        Tools(GroupMember, "IsAudiopaydEnabled", "b"),
        Standard(Application, "Introspectable", "Introspect", "s"),
        Standard(Application, "Peer", "Ping", ""),
        Standard(GroupMember, "Properties", "GetAll", "a{sv}", {kService + ".System"}),
        {Administrator, "/Applications", "", "Enumerate", {}, "aa{sv}"},
        {Administrator, "/Tools", "", "IsAudiopaydEnabled", {}, "b"},
    };
    return calls;
}

QString TitleOf(const Call& call)
{
    const QString id = call.member == "SystemCall" ? call.arguments.first().toString() : QString();
    return call.object + ' ' + call.interface + '.' + call.member + ' ' + id;
}

// As the caller

/// \param result  types of the arguments
QString Answered(const QString& result)
{
    return "answered " + result;
}

/// \param destination  the daemon's name, or its address on the bus
QString OutcomeOf(const Call& call, const QString& destination)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(destination, call.object, call.interface, call.member);
    message.setArguments(call.arguments);
    const QDBusMessage reply =
        QDBusConnection::systemBus().call(message, QDBus::Block, kxtest::Bound(kxtest::kPatience));
    return reply.type() == QDBusMessage::ErrorMessage ? reply.errorName() : Answered(reply.signature());
}

/// Counts the browser's reports of loaded pages, whoever sends them.
class Counter : public QObject {
    Q_OBJECT

public:
    int count = 0;

public slots:
    void Count() { ++count; }
};

// As the test

/// \return what came of the call of that index: see Answered, or the name of an error
QString RunAs(const QString& account, int call, const QString& destination = kService)
{
    const QString output = kxtest::RunAs(account, {kCaller, QString::number(call), destination}).out;
    return output.left(output.size() - 1);
}

} // namespace

/// The installed bus policy: what each kind of account may do with the daemon.
class AccessTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        CopyProgram(QCoreApplication::applicationFilePath(), kCaller);
        QVERIFY(m_daemon.Start());
    }

    void IsAllowedOrRefused_data()
    {
        const Table<int, int> row;
        for (int caller = Application; caller <= Root; ++caller) {
            for (int call = 0; call < Calls().size(); ++call) {
                row((kAccounts.at(caller) + ' ' + TitleOf(Calls().at(call))).toUtf8(), call, caller);
            }
        }
    }

    void IsAllowedOrRefused()
    {
        const auto [call, caller] = FetchRow<int, int>();
        const bool allowed = caller >= Calls().at(call).from;
        QCOMPARE(RunAs(kAccounts.at(caller), call), allowed ? Answered(Calls().at(call).result) : kRefused);
    }

    void RefusedCallsHaveNoEffect()
    {
        // By the administrator and by root each: the system call, and the restart, which a member may ask for
        // too.
        KX_TRY_COMPARE(kxtest::PlatformCalls().count("reboot"), 2 + 3);
        QCOMPARE(kxtest::PlatformCalls().count("poweroff"), 2);
    }

    void AddressIsNoWayAround()
    {
        const QString address = QDBusConnection::systemBus().interface()->serviceOwner(kService);
        for (int call = 0; call < Calls().size(); ++call) {
            if (Calls().at(call).from != Application) {
                QCOMPARE(RunAs("pay", call, address), kRefused);
            }
        }
    }

    void InterfaceIsNoWayAround()
    {
        QVERIFY(QFile::resize("/run/standins/calls", 0));
        Call disguised = System(1);
        disguised.interface = kService + ".Applications";
        QVERIFY(OutcomeOf(disguised, kService).startsWith("org.freedesktop.DBus.Error.Unknown"));
        QCOMPARE(kxtest::PlatformCalls(), QStringList());
    }

    void LossOfTheBusCannotBeForged()
    {
        // The daemon reboots the terminal on this signal, which only its own connection can emit.
        const QStringList signal{"--system", "--type=signal", "/org/freedesktop/DBus/Local",
                                 "org.freedesktop.DBus.Local.Disconnected"};
        for (const QStringList& destination : {QStringList(), QStringList("--dest=" + kService)}) {
            QCOMPARE(kxtest::RunAs("pay", QStringList("dbus-send") + destination + signal).status, 0);
        }
        QCOMPARE(m_daemon.StartRequest({{"application", "none"}})["errorCode"].toInt(), -1);
        for (const kxtest::LogRecord& record : m_daemon.Records()) {
            QVERIFY2(!record.text.contains("dbus-daemon died"), qPrintable(record.text));
        }
    }

    void EverybodyHearsSignals()
    {
        QProcess listener;
        listener.setProcessChannelMode(QProcess::MergedChannels);
        // Of an application account, the process would not survive what the signal reports.
        listener.start("setpriv",
                       {"--reuid", "guest", "--regid", "guest", "--init-groups", "kxctl", "monitor"});
        KX_TRY_VERIFY(listener.peek(1000).contains("Ctrl-C ends"));
        m_daemon.Applications().Terminate();
        KX_TRY_VERIFY(listener.peek(1000).contains("OnTerminate"));
        listener.terminate();
        QVERIFY(listener.waitForFinished());
    }

    void OnlyRootOwnsTheName()
    {
        QCOMPARE(m_daemon.Stop(), 0);
        const QString own("dbus-send --system --print-reply --dest=org.freedesktop.DBus / "
                          "org.freedesktop.DBus.RequestName string:%1 uint32:0");
        for (const QString& account : kAccounts) {
            const QString failure =
                kxtest::RunAs(account, own.arg(kService).split(' ')).err.section(": ", 0, 0);
            QCOMPARE(failure, account == "root" ? QString() : "Error " + kRefused);
        }
        QVERIFY(m_daemon.Start());
    }

    void DaemonHearsTheBrowser()
    {
        // In the daemon's place, since it does not tell what it hears.
        QCOMPARE(m_daemon.Stop(), 0);
        QDBusConnection bus = QDBusConnection::systemBus();
        QVERIFY(bus.registerService(kService));
        Counter loaded;
        QVERIFY(bus.connect(QString(), "/", "com.veltrasys.browser.Server", "loadCompleted", &loaded,
                            SLOT(Count())));
        bus.interface()->isServiceRegistered(kService); // the bus knows the rule before it answers
        const QStringList send{"dbus-send", "--system", "--type=signal"};
        const QStringList signal{"/", "com.veltrasys.browser.Server.loadCompleted", "boolean:true"};
        // Only to the daemon, which is refused, then to everybody: were both let through, both would be here.
        QCOMPARE(kxtest::RunAs("guest", send + QStringList{"--dest=" + kService} + signal).status, 0);
        QCOMPARE(kxtest::RunAs("guest", send + signal).status, 0);
        KX_TRY_VERIFY(loaded.count > 0);
        QCOMPARE(loaded.count, 1);
        QVERIFY(bus.unregisterService(kService));
        QVERIFY(m_daemon.Start());
    }

    void MissingGroupsLetNobodyIn()
    {
        WriteFile("/etc/group", ReadFile("/etc/group").replace("\nkx", "\nold-kx"));
        // Has the bus read the groups again.
        const QDBusMessage reload = QDBusConnection::systemBus().interface()->call("ReloadConfig");
        QCOMPARE(reload.type(), QDBusMessage::ReplyMessage);

        constexpr int kEnumerate = 0;
        QCOMPARE(RunAs("clerk", kEnumerate), kRefused);
        QCOMPARE(RunAs("admin", kEnumerate), kRefused);
        QCOMPARE(RunAs("root", kEnumerate), Answered("aa{sv}"));
        QCOMPARE(m_daemon.Stop(), 0);
    }

private:
    DaemonFixture m_daemon;
};

/// Without arguments the test, otherwise a caller: prints what came of the call.
int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (QCoreApplication::applicationFilePath() == kCaller) {
        std::puts(qPrintable(OutcomeOf(Calls().at(arguments.first().toInt()), arguments.last())));
        std::fflush(stdout);
        // At once: a leak check at exit sees what the bus thread is just busy with, and ends before the
        // output.
        _exit(0);
    }
    AccessTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AccessTest.moc"
