#include "Daemon.h"
#include "Json.h"
#include "Verbs.h"
#include "common/Output.h"

#include "Registry.h"

#include <QDateTime>
#include <QDirIterator>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

namespace kxctl {
namespace {

using cli::Print;
using cli::Printable;

constexpr auto kTimeFormat = "yyyy-MM-dd HH:mm:ss";
constexpr auto kZones = "/usr/share/zoneinfo/";

/// \return the zone that /etc/localtime names; UTC without that link
QString Zone()
{
    const QString target = QFileInfo("/etc/localtime").symLinkTarget();
    return target.isEmpty() ? "UTC" : target.mid(target.startsWith(kZones) ? QString(kZones).size() : 0);
}

/// \return who set the time, as the registry has it; empty when it is not known to this account
QString Source()
{
    const QString source = com::veltrasys::Registry().getValue("%platform.timeInfoSource").toString();
    return source.contains("Error:") ? QString() : source;
}

ExitStatus ShowTime(const Request& request)
{
    const QDateTime now = QDateTime::currentDateTime();
    const QString local = now.toString(kTimeFormat);
    const QString utc = now.toUTC().toString(kTimeFormat);
    const QString source = Source();
    if (request.IsSet("json")) {
        PrintJson(QVariantMap{{"local", local}, {"utc", utc}, {"zone", Zone()}, {"source", source}});
        return cli::Success;
    }
    cli::Table table;
    table.Add({"local time", local});
    table.Add({"UTC", utc});
    table.Add({"zone", Zone()});
    table.Add({"source", source.isEmpty() ? "not known" : source});
    table.Print();
    return cli::Success;
}

/// Shows the answer of a method that returns 0 for success; \a meaning tells what another number means.
ExitStatus Report(const Request& request, int result, const QString& meaning)
{
    if (request.IsSet("json")) {
        PrintJson(QVariantMap{{"result", result}});
    }
    if (result != 0) {
        throw Failure(cli::Refused,
                      QStringLiteral("%1 (the daemon answered %2)").arg(meaning, QString::number(result)));
    }
    return cli::Success;
}

ExitStatus SetTime(const Request& request)
{
    // For the results -1, -2, -3 and any other.
    static const QStringList failures{
        "this is neither YYYY-MM-DD HH:MM:SS nor one half of it, or no valid time",
        "the system clock could not be set", "the clock is set, but /etc/time_offset could not be written"};
    const int result = Wait(Daemon(request).tools.SetSystemTime(request.arguments.first())).value();
    return Report(request, result, failures.value(-result - 1, "the present time could not be read"));
}

ExitStatus ShowZone(const Request& request)
{
    if (request.IsSet("json")) {
        PrintJson(QVariantMap{{"zone", Zone()}});
    } else {
        Print(Printable(Zone()));
    }
    return cli::Success;
}

ExitStatus ListZones(const Request& request)
{
    QStringList zones;
    QDirIterator files(kZones, QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        const QString zone = files.filePath().mid(QString(kZones).size());
        // Files of another kind and the copies with and without leap seconds are no names to choose.
        if (!zone.startsWith("posix/") && !zone.startsWith("right/") && file.open(QIODevice::ReadOnly) &&
            file.read(4) == "TZif") {
            zones.append(zone);
        }
    }
    zones.sort();
    if (request.IsSet("json")) {
        PrintJson(zones);
    } else {
        std::for_each(zones.begin(), zones.end(), [](const QString& zone) { Print(Printable(zone)); });
    }
    return cli::Success;
}

ExitStatus SetZone(const Request& request)
{
    const QString zone = request.arguments.first();
    return Report(request, Wait(Daemon(request).tools.SetTimeZone(zone)).value(),
                  QStringLiteral("the zone '%1' was not set; is it one of 'kxctl zone list'?").arg(zone));
}

/// \return why \a source was refused, as far as can be told from here
QString TimeInfoFailure(const QString& source)
{
    const QStringList precedence{"HOST", "MANUAL", "HUB", "UNKNOWN"};
    const QString current = Source();
    return precedence.contains(current) && precedence.indexOf(source) > precedence.indexOf(current)
               ? QStringLiteral("%1 does not overwrite what %2 has set; 'kxctl timeinfo reset' forgets %2")
                     .arg(source, current)
               : "time and zone were not set; the daemon's log tells why";
}

ExitStatus SetTimeInfo(const Request& request)
{
    const QStringList& arguments = request.arguments;
    const auto reply = Daemon(request).tools.SetTimeInfo(arguments.at(0), arguments.at(1), arguments.at(2));
    const int result = Wait(reply).value();
    return Report(request, result, result == 0 ? QString() : TimeInfoFailure(arguments.at(2)));
}

ExitStatus SetVariable(const Request& request)
{
    static const QRegularExpression identifier("^[A-Za-z_][A-Za-z0-9_]*$");
    const QString name = request.arguments.at(0);
    if (!identifier.match(name).hasMatch() && !request.IsSet("force")) {
        throw request.Misused(
            QStringLiteral("'%1' is no name of a shell variable; --force stores it").arg(name));
    }
    return Report(
        request, Wait(Daemon(request).tools.SaveVariableValue(name, request.arguments.at(1))).value(),
        "the variable was not stored: values hold letters, digits and blanks only, and the file must exist");
}

ExitStatus Audiopayd(const Request& request)
{
    Daemon daemon(request);
    const QString wanted = request.arguments.value(0);
    if (!wanted.isEmpty()) {
        Wait(daemon.tools.EnableAudiopayd(wanted == "on"));
    }
    // Switching has no answer; the state tells whether it worked.
    const bool isEnabled = Wait(daemon.tools.IsAudiopaydEnabled()).value();
    if (!wanted.isEmpty() && isEnabled != (wanted == "on")) {
        throw Failure(cli::Refused,
                      "the audio-payment daemon could not be switched; the daemon's log tells why");
    }
    if (request.IsSet("json")) {
        PrintJson(QVariantMap{{"enabled", isEnabled}});
    } else {
        Print(isEnabled ? "on" : "off");
    }
    return cli::Success;
}

} // namespace

std::vector<Verb> TimeVerbs()
{
    return {
        {"time", "show time, zone and who set them", ShowTime,
         "The daemon is not asked. Only root may see the source."},
        {"time set TEXT", "set the system clock", SetTime,
         "TEXT is local time: YYYY-MM-DD HH:MM:SS, or one half of it. The source becomes MANUAL."},
        {"zone", "show the time zone", ShowZone},
        {"zone list", "list the time zones", ListZones},
        {"zone set NAME", "set the time zone", SetZone,
         "NAME is one of 'kxctl zone list'; an empty NAME is UTC. The source becomes MANUAL."},
        {"timeinfo UTC ZONE {HOST|MANUAL|HUB|UNKNOWN}", "set time and zone in the name of a source",
         SetTimeInfo,
         "UTC is YYYY-MM-DD HH:MM:SS, or empty to leave the clock alone. A source does not overwrite what "
         "one\n"
         "before it in the list has set."},
        {"timeinfo reset", "forget who set the time",
         [](const Request& r) {
             return Report(r, Wait(Daemon(r).tools.ResetTimeInfoSource()).value(),
                           "the source was not reset");
         }},
        {"var set NAME VALUE",
         "store a variable for the boot scripts",
         SetVariable,
         "Replaces the first line of /etc/rc.d/rc.platform.conf that contains NAME, or appends one. VALUE "
         "may\n"
         "hold letters, digits and blanks.",
         {{"force", nullptr, "take a NAME that is no name of a shell variable"}}},
        {"audiopayd [on|off]", "show or switch the start of the audio-payment daemon", Audiopayd,
         "Takes effect at the next boot."},
    };
}

} // namespace kxctl
