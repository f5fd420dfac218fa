#include "Conflicts.h"
#include "Daemon.h"
#include "Json.h"
#include "Processes.h"
#include "Verbs.h"
#include "common/Output.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QFileInfo>

namespace kxctl {
namespace {

constexpr auto kTimeFormat = "yyyy-MM-dd HH:mm:ss";
constexpr qint64 kSecondsOfDay = 86400;

/// \return how long ago, as hours, minutes and seconds, with the days in front
QString Age(const QDateTime& since)
{
    const QDateTime now = QDateTime::currentDateTime();
    const qint64 days = since.secsTo(now) / kSecondsOfDay;
    const QString time = QTime(0, 0).addSecs(static_cast<int>(since.addDays(days).secsTo(now))).toString();
    return days > 0 ? QStringLiteral("%1 d %2").arg(QString::number(days), time) : time;
}

QString Size(qint64 bytes)
{
    constexpr double kMebi = 1024.0 * 1024.0;
    return QString::number(static_cast<double>(bytes) / kMebi, 'f', 1) + " MiB";
}

/// \return the address that the browser shows; empty when it does not say
QString ShownPage(int timeout)
{
    const auto call =
        QDBusMessage::createMethodCall(kBrowserName, "/", "com.veltrasys.browser.Server", "GetUrl");
    const QDBusReply<QVariantMap> answer = Bus().call(call, QDBus::Block, timeout);
    return answer.isValid() ? Plain(answer.value().value("url")).toString() : QString();
}

QVariantMap DaemonStatus()
{
    const QDBusConnection bus = Bus();
    const QDBusReply<uint> pid = bus.interface()->servicePid(kServiceName);
    if (!pid.isValid()) {
        throw Failure(cli::Unreachable, "the daemon is not running");
    }
    const Process process = ReadProcess(static_cast<int>(pid.value()));
    const QByteArray address = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
    return {{"pid", pid.value()},
            {"since", process.since.toString(kTimeFormat)},
            {"age", Age(process.since)},
            {"memory", process.memory},
            {"version", KX_VERSION},
            {"bus", address.isEmpty() ? "the system bus" : QString::fromUtf8(address)},
            {"connection", bus.interface()->serviceOwner(kServiceName).value()}};
}

QVariantList RunningPrograms(const QVariantMap& application)
{
    QVariantList programs;
    for (const Process& process : ProcessesOf(application.value("uid").toUInt())) {
        programs.append(QVariantMap{{"pid", process.pid},
                                    {"program", process.program},
                                    {"age", Age(process.since)},
                                    {"memory", process.memory}});
    }
    return programs;
}

void PrintStatus(const QVariantMap& status)
{
    const QVariantMap daemon = status.value("daemon").toMap();
    const auto orNone = [](const QString& text, const char* none) { return text.isEmpty() ? none : text; };
    cli::Table table;
    table.Add(
        {"daemon", QStringLiteral("pid %1, since %2 (%3), %4")
                       .arg(daemon.value("pid").toString(), daemon.value("since").toString(),
                            daemon.value("age").toString(), Size(daemon.value("memory").toLongLong()))});
    table.Add({"version", daemon.value("version").toString() + " (installed)"});
    table.Add({"bus", daemon.value("bus").toString() + ", " + daemon.value("connection").toString()});
    const char* const noPage = status.value("browser").toBool() ? "not known" : "no browser runs";
    table.Add({"page", orNone(status.value("page").toString(), noPage)});
    const QVariant form = status.value("default");
    table.Add(
        {"default form", orNone(form.toString(), form.isNull() ? "not for this account to see" : "none")});
    const QVariantMap conflicts = status.value("conflicts").toMap();
    for (auto conflict = conflicts.begin(); conflict != conflicts.end(); ++conflict) {
        for (const QString& text : conflict->toStringList()) {
            table.Add({"conflict", conflict.key() + ": " + text});
        }
    }
    table.Print();
    cli::Print({});
    cli::Table programs({"APPLICATION", "PID", "PROGRAM", "AGE", "MEMORY"});
    for (const QVariant& entry : status.value("applications").toList()) {
        const QVariantList running = entry.toMap().value("processes").toList();
        const QString name = entry.toMap().value("name").toString();
        for (const QVariant& process : running) {
            const QVariantMap map = process.toMap();
            programs.Add({name, map.value("pid").toString(), map.value("program").toString(),
                          map.value("age").toString(), Size(map.value("memory").toLongLong())});
        }
        if (running.isEmpty()) {
            programs.Add({name, {}, {}, {}, {}});
        }
    }
    programs.Print();
}

ExitStatus Status(const Request& request)
{
    QVariantMap status{{"daemon", DaemonStatus()}, {"default", DefaultApplication()}};
    const ApplicationList records = Wait(Daemon(request).applications.Enumerate()).value();
    QVariantList applications;
    for (const QVariantMap& record : records) {
        applications.append(
            QVariantMap{{"name", record.value("name")}, {"processes", RunningPrograms(record)}});
    }
    status.insert("applications", applications);
    status.insert("conflicts", FindConflicts(records.toVector()));
    const bool hasBrowser = Bus().interface()->isServiceRegistered(kBrowserName);
    status.insert("browser", hasBrowser);
    status.insert("page", hasBrowser ? ShownPage(TimeoutOf(request)) : QString());
    if (request.IsSet("json")) {
        PrintJson(status);
    } else {
        PrintStatus(status);
    }
    return cli::Success;
}

} // namespace

Verb StatusVerb()
{
    return {"status", "show the daemon and what runs of each application", Status,
            "Programs are those under the account of the application; the version is that of the tools."};
}

} // namespace kxctl
