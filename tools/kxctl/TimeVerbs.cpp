#include "Daemon.h"
#include "Output.h"
#include "Verbs.h"

#include "Registry.h"

#include <QDateTime>
#include <QFileInfo>

#include <algorithm>
#include <array>

namespace kxctl {
namespace {

constexpr auto kTimeFormat = "yyyy-MM-dd HH:mm:ss";

struct Code {
    int value;
    const char* meaning;
};

constexpr std::array<Code, 4> kSetTimeCodes{{
    {-1, "this is neither YYYY-MM-DD HH:MM:SS nor one half of it, or no valid time"},
    {-2, "the system clock could not be set"},
    {-3, "the clock is set, but /etc/time_offset could not be written"},
    {-4, "the present time could not be read"},
}};

/// \return the zone that /etc/localtime names; UTC without that link
QString Zone()
{
    const QString root = "/zoneinfo/";
    const QString target = QFileInfo("/etc/localtime").symLinkTarget();
    const int at = target.indexOf(root);
    return at < 0 ? (target.isEmpty() ? QStringLiteral("UTC") : target) : target.mid(at + root.size());
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
    if (request.isJson) {
        PrintJson(QVariantMap{{"local", local}, {"utc", utc}, {"zone", Zone()}, {"source", Source()}});
        return Success;
    }
    const QString source = Source();
    Table table;
    table.Add({"local time", local});
    table.Add({"UTC", utc});
    table.Add({"zone", Zone()});
    table.Add({"source", source.isEmpty() ? "not known" : source});
    table.Print();
    return Success;
}

/// Shows the answer of a method that returns 0 for success; \a meaning tells what another number means.
ExitStatus Report(const Request& request, int result, const QString& meaning)
{
    if (request.isJson) {
        PrintJson(QVariantMap{{"result", result}});
    }
    if (result != 0) {
        throw Failure(Refused, QStringLiteral("%1 (the daemon answered %2)").arg(meaning).arg(result));
    }
    return Success;
}

ExitStatus SetTime(const Request& request)
{
    const int result = Wait(Daemon(request.timeout).tools.SetSystemTime(request.arguments.first())).value();
    const auto* code = std::find_if(kSetTimeCodes.begin(), kSetTimeCodes.end(),
                                    [&](const Code& entry) { return entry.value == result; });
    return Report(request, result, code != kSetTimeCodes.end() ? code->meaning : "the time was not set");
}

ExitStatus ShowZone(const Request& request)
{
    if (request.isJson) {
        PrintJson(QVariantMap{{"zone", Zone()}});
    } else {
        Print(Printable(Zone()));
    }
    return Success;
}

ExitStatus SetZone(const Request& request)
{
    const QString zone = request.arguments.first();
    return Report(request, Wait(Daemon(request.timeout).tools.SetTimeZone(zone)).value(),
                  QStringLiteral("the zone '%1' was not set; is it one of /usr/share/zoneinfo?").arg(zone));
}

ExitStatus SetTimeInfo(const Request& request)
{
    const QStringList& arguments = request.arguments;
    return Report(
        request,
        Wait(Daemon(request.timeout).tools.SetTimeInfo(arguments.at(0), arguments.at(1), arguments.at(2)))
            .value(),
        "time and zone were not set; the daemon's log tells why");
}

ExitStatus ResetTimeInfo(const Request& request)
{
    return Report(request, Wait(Daemon(request.timeout).tools.ResetTimeInfoSource()).value(),
                  "the source was not reset");
}

ExitStatus SetVariable(const Request& request)
{
    const QStringList& arguments = request.arguments;
    return Report(
        request,
        Wait(Daemon(request.timeout).tools.SaveVariableValue(arguments.at(0), arguments.at(1))).value(),
        "the variable was not stored: values hold letters, digits and blanks only, and the file must exist");
}

ExitStatus ShowAudiopayd(const Request& request, bool isEnabled)
{
    if (request.isJson) {
        PrintJson(QVariantMap{{"enabled", isEnabled}});
    } else {
        Print(isEnabled ? "on" : "off");
    }
    return Success;
}

ExitStatus Audiopayd(const Request& request)
{
    Daemon daemon(request.timeout);
    if (request.arguments.isEmpty()) {
        return ShowAudiopayd(request, Wait(daemon.tools.IsAudiopaydEnabled()).value());
    }
    const QString wanted = request.arguments.first();
    if (wanted != "on" && wanted != "off") {
        throw Misused("audiopayd", QStringLiteral("'%1' is neither on nor off").arg(wanted));
    }
    Wait(daemon.tools.EnableAudiopayd(wanted == "on"));
    // The call itself has no answer; the state tells whether it worked.
    const bool isEnabled = Wait(daemon.tools.IsAudiopaydEnabled()).value();
    if (isEnabled != (wanted == "on")) {
        throw Failure(Refused, "the audio-payment daemon could not be switched; the daemon's log tells why");
    }
    return ShowAudiopayd(request, isEnabled);
}

std::vector<Verb> ClockVerbs()
{
    return {
        {"time",
         "",
         0,
         0,
         "show time, zone and who set them",
         "Reads the system clock, the link /etc/localtime and the registry itself; the daemon is not asked.\n"
         "The source is not known to accounts that may not read the registry.",
         {},
         ShowTime},
        {"time set",
         "TEXT",
         1,
         1,
         "set the system clock",
         "TEXT is local time: YYYY-MM-DD HH:MM:SS, or the date alone, or the time alone. The source becomes\n"
         "MANUAL.",
         {},
         SetTime},
        {"zone", "", 0, 0, "show the time zone", "Reads the link /etc/localtime.", {}, ShowZone},
        {"zone set",
         "NAME",
         1,
         1,
         "set the time zone",
         "NAME is a file below /usr/share/zoneinfo, such as Europe/Berlin; an empty NAME is UTC. The source\n"
         "becomes MANUAL.",
         {},
         SetZone},
        {"timeinfo",
         "UTC ZONE SOURCE",
         3,
         3,
         "set time and zone in the name of a source",
         "UTC is YYYY-MM-DD HH:MM:SS, or empty to leave the clock alone. ZONE is as for 'zone set'. SOURCE "
         "is\n"
         "HOST, MANUAL, HUB or UNKNOWN; a source does not overwrite what one before it in this list has set.",
         {},
         SetTimeInfo},
        {"timeinfo reset", "", 0, 0, "forget who set the time", "", {}, ResetTimeInfo},
    };
}

std::vector<Verb> SettingVerbs()
{
    return {
        {"var set",
         "NAME VALUE",
         2,
         2,
         "store a variable for the boot scripts",
         "Replaces the first line of /etc/rc.d/rc.platform.conf that contains NAME, or appends one. VALUE "
         "may\n"
         "hold letters, digits and blanks.",
         {},
         SetVariable},
        {"audiopayd",
         "[on|off]",
         0,
         1,
         "show or switch the start of the audio-payment daemon",
         "Takes effect at the next boot.",
         {},
         Audiopayd},
    };
}

} // namespace

const std::vector<Verb>& TimeVerbs()
{
    static const std::vector<Verb> verbs = Joined(ClockVerbs(), SettingVerbs());
    return verbs;
}

} // namespace kxctl
