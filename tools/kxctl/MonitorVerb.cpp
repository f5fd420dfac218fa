#include "Daemon.h"
#include "Output.h"
#include "Verbs.h"
#include "misc/UniqueFd.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QDateTime>
#include <QSocketNotifier>

#include <sys/signalfd.h>

#include <csignal>

namespace kxctl {
namespace {

/// Prints what happens, one line each.
class EventPrinter {
public:
    explicit EventPrinter(bool isJson) : m_isJson(isJson) {}

    void Show(const char* object, const char* signal, const QVariantList& arguments) const
    {
        const QDateTime now = QDateTime::currentDateTime();
        if (m_isJson) {
            PrintJson(
                QVariantMap{{"time", now.toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs)},
                            {"object", object},
                            {"signal", signal},
                            {"arguments", arguments}},
                true);
            return;
        }
        QStringList line{now.toString("yyyy-MM-dd HH:mm:ss.zzz"), object, signal};
        for (const QVariant& argument : arguments) {
            line.append(ToText(argument));
        }
        Print(Printable(line.join("  ")));
        Flush();
    }

private:
    bool m_isJson;
};

/// Makes SIGINT and SIGTERM readable. To be called before the bus starts a thread, which then blocks them
/// too.
UniqueFd EndSignals()
{
    sigset_t ends = {};
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    return UniqueFd(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
}

void WatchSignals(Daemon& daemon, const EventPrinter& events)
{
    QObject::connect(&daemon.applications, &ApplicationsProxy::OnStarted, [&events](const QVariantMap& data) {
        events.Show("/Applications", "OnStarted", {data});
    });
    QObject::connect(
        &daemon.applications, &ApplicationsProxy::OnTerminate,
        [&events](const QVariantMap& data) { events.Show("/Applications", "OnTerminate", {data}); });
    QObject::connect(&daemon.tools, &ToolsProxy::TimeInfoChanged,
                     [&events](const QString& utcTime, const QString& timeZone, const QString& infoSource) {
                         events.Show("/Tools", "TimeInfoChanged", {utcTime, timeZone, infoSource});
                     });
}

void WatchService(QDBusServiceWatcher& watcher, const EventPrinter& events)
{
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceRegistered,
                     [&events] { events.Show("-", "daemon started", {}); });
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered,
                     [&events] { events.Show("-", "daemon ended", {}); });
}

ExitStatus Monitor(const Request& request)
{
    const UniqueFd endSignals = EndSignals();
    QSocketNotifier end(endSignals.Get(), QSocketNotifier::Read);
    QObject::connect(&end, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });

    QDBusConnection bus = Bus();
    const EventPrinter events(request.isJson);
    Daemon daemon(request.timeout);
    WatchSignals(daemon, events);
    QDBusServiceWatcher watcher(ServiceName(), bus);
    WatchService(watcher, events);
    bus.connect({}, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local", "Disconnected",
                QCoreApplication::instance(), SLOT(quit()));
    // Answered after the bus has taken in the subscriptions.
    if (!bus.interface()->isServiceRegistered(ServiceName())) {
        throw Failure(Unreachable, "the daemon is not running");
    }
    Tell("kxctl: monitoring, Ctrl-C ends\n");
    QCoreApplication::exec();
    if (!bus.isConnected()) {
        throw Failure(Unreachable, "the connection to the system bus was lost");
    }
    return Success;
}

} // namespace

const std::vector<Verb>& MonitorVerbs()
{
    static const std::vector<Verb> verbs{
        {"monitor",
         "",
         0,
         0,
         "show the daemon's signals until Ctrl-C",
         "One line each: time, object, signal, arguments; with --json, one object a line. Also shows when "
         "the\n"
         "daemon ends and comes back.",
         {},
         Monitor},
    };
    return verbs;
}

} // namespace kxctl
