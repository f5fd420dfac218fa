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
const QString kAllowed = QStringLiteral("allowed");
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
};

Call Applications(const char* member, const QVariantList& arguments = {})
{
    return {GroupMember, "/Applications", kService + ".Applications", member, arguments};
}

Call System(int id)
{
    return {Administrator, "/System", kService + ".System", "SystemCall", {id, QVariantMap()}};
}

Call Tools(Caller from, const char* member, const QVariantList& arguments = {})
{
    return {from, "/Tools", kService + ".Tools", member, arguments};
}

Call Standard(Caller from, const char* interface, const char* member, const QVariantList& arguments = {})
{
    return {from, "/System", QStringLiteral("org.freedesktop.DBus.") + interface, member, arguments};
}

/// Every method there is, with arguments that change nothing where that is possible.
const QVector<Call>& Calls()
{
    static const QVector<Call> calls{
        Applications("Enumerate"),
        Applications("Start", {QVariantMap{{"application", "none"}}}),
        Applications("Terminate"),
        Applications("Restart", {""}),
        System(42),
        System(1),
        System(101),
        Tools(Administrator, "SetSystemTime", {""}),
        Tools(Administrator, "SetTimeZone", {"none"}),
        Tools(Administrator, "SetTimeInfo", {"", "", "none"}),
        Tools(Administrator, "ResetTimeInfoSource"),
        Tools(Administrator, "SaveVariableValue", {"NAME", "value"}),
        Tools(Administrator, "EnableAudiopayd", {true}),
        Tools(GroupMember, "IsAudiopaydEnabled"),
        Standard(Application, "Introspectable", "Introspect"),
        Standard(Application, "Peer", "Ping"),
        Standard(GroupMember, "Properties", "GetAll", {kService + ".System"}),
        {Administrator, "/Applications", "", "Enumerate", {}},
        {Administrator, "/Tools", "", "IsAudiopaydEnabled", {}},
    };
    return calls;
}

QString TitleOf(const Call& call)
{
    const QString id = call.member == "SystemCall" ? call.arguments.first().toString() : QString();
    return call.object + ' ' + call.interface + '.' + call.member + ' ' + id;
}

// As the caller

QString Outcome(const QDBusMessage& message)
{
    const QDBusMessage reply =
        QDBusConnection::systemBus().call(message, QDBus::Block, kxtest::Bound(kxtest::kPatience));
    return reply.type() == QDBusMessage::ErrorMessage ? reply.errorName() : kAllowed;
}

/// \param destination  the daemon's name, or its address on the bus
QString OutcomeOf(const Call& call, const QString& destination)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(destination, call.object, call.interface, call.member);
    message.setArguments(call.arguments);
    return Outcome(message);
}

/// The name may be owned already, which is no refusal.
QString OutcomeOfOwning()
{
    QDBusMessage message =
        QDBusMessage::createMethodCall("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName");
    constexpr uint kDoNotQueue = 4;
    message.setArguments({kService, kDoNotQueue});
    return Outcome(message);
}

/// Waits for the daemon's signal.
class Listener : public QObject {
    Q_OBJECT

public:
    QString Listen()
    {
        QDBusConnection::systemBus().connect(kService, "/Applications", kService + ".Applications",
                                             "OnTerminate", this, SLOT(Hear()));
        // Answered after the bus knows what this process listens to.
        QDBusConnection::systemBus().interface()->isServiceRegistered(kService);
        std::puts("listening");
        std::fflush(stdout);
        return kxtest::WaitFor([this] { return m_heard; }) ? kAllowed : kRefused;
    }

private slots:
    void Hear() { m_heard = true; }

private:
    bool m_heard = false;
};

/// Counts the browser's reports of loaded pages, whoever sends them.
class Counter : public QObject {
    Q_OBJECT

public:
    int count = 0;

public slots:
    void Count() { ++count; }
};

QString Act(const QStringList& arguments)
{
    if (arguments.first() == "own") {
        return OutcomeOfOwning();
    }
    if (arguments.first() == "listen") {
        return Listener().Listen();
    }
    return OutcomeOf(Calls().at(arguments.first().toInt()), arguments.last());
}

// As the test

/// \return "allowed", or the name of the error that the account got
QString RunAs(const QString& account, const QStringList& arguments)
{
    return kxtest::RunAs(account, QStringList(kCaller) + arguments).out.trimmed();
}

QString AddressOf(const QString& service)
{
    return QDBusConnection::systemBus().interface()->serviceOwner(service);
}

/// Has the bus read its configuration and the groups again.
bool ReloadBus()
{
    const QDBusMessage reload =
        QDBusMessage::createMethodCall("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig");
    return QDBusConnection::systemBus().call(reload).type() == QDBusMessage::ReplyMessage;
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
        QCOMPARE(RunAs(kAccounts.at(caller), {QString::number(call), kService}),
                 allowed ? kAllowed : kRefused);
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
        for (int call = 0; call < Calls().size(); ++call) {
            if (Calls().at(call).from != Application) {
                QCOMPARE(RunAs("pay", {QString::number(call), AddressOf(kService)}), kRefused);
            }
        }
    }

    void InterfaceIsNoWayAround()
    {
        QVERIFY(QFile::resize("/run/standins/calls", 0));
        const Call disguised{
            GroupMember, "/System", kService + ".Applications", "SystemCall", {1, QVariantMap()}};
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
        // Of an application account, the process would not survive what the signal reports.
        listener.start("setpriv",
                       {"--reuid", "guest", "--regid", "guest", "--init-groups", kCaller, "listen"});
        KX_TRY_VERIFY(listener.canReadLine());
        QCOMPARE(listener.readLine().trimmed(), QByteArray("listening"));
        m_daemon.Applications().Terminate();
        QVERIFY(listener.waitForFinished(kxtest::Bound(kxtest::kPatience)));
        QCOMPARE(QString::fromLatin1(listener.readAll()).trimmed(), kAllowed);
    }

    void OnlyRootOwnsTheName()
    {
        QCOMPARE(m_daemon.Stop(), 0);
        for (const QString& account : kAccounts) {
            QCOMPARE(RunAs(account, {"own"}), account == "root" ? kAllowed : kRefused);
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
        QVERIFY(ReloadBus());

        const QStringList enumerate{QStringLiteral("0"), kService};
        QCOMPARE(RunAs("clerk", enumerate), kRefused);
        QCOMPARE(RunAs("admin", enumerate), kRefused);
        QCOMPARE(RunAs("root", enumerate), kAllowed);
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
        std::puts(qPrintable(Act(arguments)));
        std::fflush(stdout);
        // At once: a leak check at exit sees what the bus thread is just busy with, and ends before the
        // output.
        _exit(0);
    }
    AccessTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AccessTest.moc"
