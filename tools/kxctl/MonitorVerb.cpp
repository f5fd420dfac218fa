#include "Daemon.h"
#include "Json.h"
#include "Verbs.h"
#include "common/EndSignals.h"
#include "common/Output.h"

#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QDateTime>

#include <algorithm>

namespace kxctl {
namespace {

/// Prints what happens, one line each.
void Show(bool isJson, const char* object, const char* signal, const QVariantList& arguments)
{
    const QDateTime now = QDateTime::currentDateTime();
    if (isJson) {
        const QString time = now.toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs);
        PrintJson(
            QVariantMap{{"time", time}, {"object", object}, {"signal", signal}, {"arguments", arguments}},
            true);
        return;
    }
    QStringList line{now.toString("yyyy-MM-dd HH:mm:ss.zzz"), object, signal};
    std::transform(arguments.begin(), arguments.end(), std::back_inserter(line), ToText);
    cli::Print(cli::Printable(line.join("  ")));
}

void WatchSignals(Daemon& daemon, bool isJson)
{
    const auto show = [isJson](const char* signal) {
        return [=](const QVariantMap& data) { Show(isJson, "/Applications", signal, {data}); };
    };
    QObject::connect(&daemon.applications, &ApplicationsProxy::OnStarted, show("OnStarted"));
    QObject::connect(&daemon.applications, &ApplicationsProxy::OnTerminate, show("OnTerminate"));
    QObject::connect(&daemon.tools, &ToolsProxy::TimeInfoChanged,
                     [=](const QString& utcTime, const QString& timeZone, const QString& infoSource) {
                         Show(isJson, "/Tools", "TimeInfoChanged", {utcTime, timeZone, infoSource});
                     });
}

ExitStatus Monitor(const Request& request)
{
    const cli::EndSignals end;
    QDBusConnection bus = Bus();
    const bool isJson = request.IsSet("json");
    Daemon daemon(request);
    WatchSignals(daemon, isJson);
    const QDBusServiceWatcher watcher(kServiceName, bus);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceRegistered,
                     [=] { Show(isJson, "-", "daemon started", {}); });
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered,
                     [=] { Show(isJson, "-", "daemon ended", {}); });
    bus.connect({}, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local", "Disconnected",
                QCoreApplication::instance(), SLOT(quit()));
    // Answered after the bus has taken in the subscriptions.
    if (!bus.interface()->isServiceRegistered(kServiceName)) {
        throw Failure(cli::Unreachable, "the daemon is not running");
    }
    cli::Tell("kxctl: monitoring, Ctrl-C ends\n");
    QCoreApplication::exec();
    if (!bus.isConnected()) {
        throw Failure(cli::Unreachable, "the connection to the system bus was lost");
    }
    return cli::Success;
}

} // namespace

Verb MonitorVerb()
{
    return {"monitor", "show the daemon's signals until Ctrl-C", Monitor,
            "One line each, or with --json one object. Also shows when the daemon ends and comes back."};
}

} // namespace kxctl
