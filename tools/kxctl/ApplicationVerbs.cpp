#include "Conflicts.h"
#include "Daemon.h"
#include "Json.h"
#include "Processes.h"
#include "Verbs.h"
#include "common/Output.h"

#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <limits>

namespace kxctl {
namespace {

using cli::Print;
using cli::Printable;

struct Field {
    const char* label;
    const char* key;
};

/// What is shown of an application besides its identity, in this order.
constexpr Field kFields[] = {
    {"home directory", "homeDir"},
    {"temporary directory", "tmpDir"},
    {"boot program", "runOnBoot"},
    {"boot page", "showOnBoot"},
    {"home button page", "homeButton"},
    {"default CGI application", "cgiBinDefault"},
    {"web resources", "webResources"},
    {"resources", "resources"},
    {"prompts", "prompts"},
    {"card ranges", "cardRanges"},
    {"BIN ranges", "BINRanges"},
    {"white list", "whiteList"},
    {"white list signature", "whiteListSignature"},
    {"signature file", "whiteListSignaturePath"},
    {"CA certificate", "cacertPath"},
};

QString Id(const QVariant& id)
{
    return id.toUInt() == std::numeric_limits<quint32>::max() ? "unknown" : id.toString();
}

QString ServedBy(const QVariantMap& application)
{
    return application.value("fastCgi").toBool() ? "FastCGI" : "CGI";
}

QString RunningPrograms(const QVariantMap& application)
{
    QStringList programs;
    for (const Process& process : ProcessesOf(application.value("uid").toUInt())) {
        programs.append(process.program);
    }
    return programs.join(", ");
}

ApplicationList Enumerate(const Request& request)
{
    return Wait(Daemon(request).applications.Enumerate()).value();
}

QVariantMap Find(const ApplicationList& applications, const QString& name)
{
    const auto found =
        std::find_if(applications.begin(), applications.end(),
                     [&](const QVariantMap& application) { return application.value("name") == name; });
    if (found == applications.end()) {
        throw Failure(cli::Refused, QStringLiteral("no application '%1' is installed").arg(name));
    }
    return *found;
}

void PrintApplications(const ApplicationList& applications)
{
    cli::Table table({"NAME", "USER", "UID/GID", "SERVED BY", "RUNNING", "BOOT PROGRAM", "BOOT PAGE"});
    for (const QVariantMap& application : applications) {
        table.Add({application.value("name").toString(), application.value("userName").toString(),
                   Id(application.value("uid")) + '/' + Id(application.value("gid")), ServedBy(application),
                   RunningPrograms(application), application.value("runOnBoot").toString(),
                   application.value("showOnBoot").toString()});
    }
    table.Print();
}

ExitStatus Apps(const Request& request)
{
    const ApplicationList applications = Enumerate(request);
    QVariantList records;
    QStringList names;
    for (const QVariantMap& application : applications) {
        records.append(application);
        names.append(application.value("name").toString());
    }
    if (request.IsSet("json")) {
        PrintJson(request.IsSet("names") ? QVariant(names) : QVariant(records));
    } else if (request.IsSet("names")) {
        std::for_each(names.begin(), names.end(), [](const QString& name) { Print(Printable(name)); });
    } else {
        PrintApplications(applications);
    }
    return cli::Success;
}

void PrintIcons(const QString& title, const QVariant& icons)
{
    cli::Table table({"POSITION", "TITLE", "FORM", "ICON"});
    for (const QVariant& entry : Plain(icons).toList()) {
        const QVariantMap icon = entry.toMap();
        table.Add({icon.value("iconPosition").toString(), icon.value("title").toString(),
                   icon.value("form").toString(), icon.value("iconPath").toString()});
    }
    if (!table.IsEmpty()) {
        Print('\n' + title + ':');
        table.Print(2);
    }
}

ExitStatus App(const Request& request)
{
    const QVariantMap application = Find(Enumerate(request), request.arguments.first());
    if (request.IsSet("json")) {
        PrintJson(application);
        return cli::Success;
    }
    const auto account = [&](const char* name, const char* id) {
        return QStringLiteral("%1 (%2)").arg(application.value(name).toString(), Id(application.value(id)));
    };
    cli::Table table;
    table.Add({"name", application.value("name").toString()});
    table.Add({"user", account("userName", "uid")});
    table.Add({"group", account("groupName", "gid")});
    table.Add({"served by", ServedBy(application)});
    for (const Field& field : kFields) {
        const QString text = ToText(application.value(field.key));
        if (!text.isEmpty()) {
            table.Add({field.label, text});
        }
    }
    table.Print();
    PrintIcons("Desktop", application.value("desktopItems"));
    PrintIcons("Configuration pages", application.value("configPages"));
    return cli::Success;
}

/// Shows the answer of a method that has none of interest.
ExitStatus Done(const Request& request, const QString& text, const QVariantMap& answer = {})
{
    if (request.IsSet("json")) {
        PrintJson(answer);
    } else {
        Print(Printable(text));
    }
    return cli::Success;
}

/// Restarts all applications; with --wait returns when the daemon says that they run.
ExitStatus StartAll(const Request& request)
{
    Daemon daemon(request);
    QEventLoop loop;
    enum { Waiting, Started, Ended } state = Waiting;
    QObject::connect(&daemon.applications, &ApplicationsProxy::OnStarted, &loop, [&] {
        state = Started;
        loop.quit();
    });
    const QDBusServiceWatcher watcher(kServiceName, Bus(), QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered, &loop, [&] {
        state = Ended;
        loop.quit();
    });
    const QVariantMap answer = Wait(daemon.applications.Start({})).value();
    if (!request.IsSet("wait")) {
        return Done(request, "all applications are being restarted", answer);
    }
    QTimer::singleShot(TimeoutOf(request), &loop, &QEventLoop::quit);
    if (state == Waiting) {
        loop.exec();
    }
    if (state != Started) {
        throw Failure(cli::Unreachable, state == Ended
                                            ? "the daemon ended before the applications were started"
                                            : "the applications were not started in time; the "
                                              "daemon's log tells how far it is");
    }
    return Done(request, "all applications are started", answer);
}

/// \return a failure that names the programs of an application
Failure MissingProgram(const Request& request)
{
    const QString name = request.arguments.first();
    const QDir bin(Find(Enumerate(request), name).value("homeDir").toString() + "/bin");
    const QString programs = bin.entryList(QDir::Files, QDir::Name).join(", ");
    return request.Misused(programs.isEmpty()
                               ? QStringLiteral("needs a BINARY; none is found in %1").arg(bin.path())
                               : QStringLiteral("needs a BINARY of %1: %2").arg(name, programs));
}

ExitStatus Start(const Request& request)
{
    const QStringList& arguments = request.arguments;
    if (arguments.isEmpty()) {
        return StartAll(request);
    }
    if (request.IsSet("wait")) {
        throw request.Misused("--wait is for the start of all applications");
    }
    if (arguments.size() == 1) {
        throw MissingProgram(request);
    }
    QVariantMap map{{"application", arguments.at(0)}, {"binary", arguments.at(1)}};
    if (arguments.size() > 2) {
        map.insert("params", QStringList(arguments.mid(2)).join(' '));
    }
    const QVariantMap answer = Wait(Daemon(request).applications.Start(map)).value();
    if (answer.value("errorCode").toInt() != 0) {
        if (request.IsSet("json")) {
            PrintJson(answer);
        }
        throw Failure(cli::Refused, answer.value("errorText").toString());
    }
    return Done(request, arguments.at(0) + ": started " + arguments.at(1), answer);
}

ExitStatus Home(const Request& request)
{
    Wait(Daemon(request).applications.Start({{"default", true}}));
    const QVariant application = DefaultApplication();
    const bool hasBrowser = Bus().interface()->isServiceRegistered(kBrowserName);
    QString page = "the default form, which this account may not see,";
    if (!application.isNull()) {
        const QString name = application.toString();
        page = name.isEmpty() ? "no application has a default form; a page that says so"
                              : "the form html/index.html of " + name;
    }
    return Done(request, page + (hasBrowser ? " is shown" : " is shown when a browser comes; none runs"),
                {{"application", application}, {"browser", hasBrowser}});
}

ExitStatus Restart(const Request& request)
{
    Confirm(request, "Stop all applications and restart the terminal?");
    Wait(Daemon(request).applications.Restart(QString()));
    return Done(request, "the terminal is being restarted");
}

} // namespace

std::vector<Verb> ApplicationVerbs()
{
    return {
        {"apps",
         "list the installed applications and what runs of them",
         Apps,
         "Running are the programs under the account of the application.",
         {{"names", nullptr, "print nothing but the names"}}},
        {"app NAME", "show everything of one application", App},
        {"start [APP] [BINARY] [PARAM]...",
         "restart all applications, or start one program",
         Start,
         "Without arguments, stops all, starts all boot programs and shows the first page. APP alone names "
         "its\n"
         "programs. Parameters are split at blanks, without quoting. Options of kxctl stand before APP.",
         {{"wait", nullptr, "return when all applications are started"}},
         true},
        {"home", "show the default form", Home,
         "That is html/index.html of the first of desktop, productiontest, systemconfig and systemutils."},
        {"stop", "stop all applications",
         [](const Request& r) {
             Wait(Daemon(r).applications.Terminate());
             return Done(r, "all applications are stopped");
         },
         "Returns when they have ended."},
        {"restart",
         "stop all applications and restart the terminal",
         Restart,
         "Every application is asked to stop, then stopped, then the terminal reboots.",
         {{"yes", nullptr, "do not ask; needed where there is no terminal"}}},
    };
}

} // namespace kxctl
