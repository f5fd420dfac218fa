#include "Daemon.h"
#include "Output.h"
#include "Verbs.h"

#include <algorithm>
#include <limits>

namespace kxctl {
namespace {

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

ApplicationList Enumerate(const Request& request)
{
    return Wait(Daemon(request.timeout).applications.Enumerate()).value();
}

QVariantMap Find(const ApplicationList& applications, const QString& name)
{
    for (const QVariantMap& application : applications) {
        if (application.value("name") == name) {
            return application;
        }
    }
    throw Failure(Refused, QStringLiteral("no application '%1' is installed").arg(name));
}

void PrintApplications(const ApplicationList& applications)
{
    Table table({"NAME", "USER", "UID/GID", "SERVED BY", "BOOT PROGRAM", "BOOT PAGE"});
    for (const QVariantMap& application : applications) {
        table.Add({application.value("name").toString(), application.value("userName").toString(),
                   Id(application.value("uid")) + '/' + Id(application.value("gid")), ServedBy(application),
                   application.value("runOnBoot").toString(), application.value("showOnBoot").toString()});
    }
    table.Print();
}

ExitStatus Apps(const Request& request)
{
    const ApplicationList applications = Enumerate(request);
    if (request.isJson) {
        QVariantList list;
        std::copy(applications.begin(), applications.end(), std::back_inserter(list));
        PrintJson(list);
    } else if (request.options.isSet("names")) {
        for (const QVariantMap& application : applications) {
            Print(Printable(application.value("name").toString()));
        }
    } else {
        PrintApplications(applications);
    }
    return Success;
}

void PrintIcons(const QString& title, const QVariant& icons)
{
    Table table({"POSITION", "TITLE", "FORM", "ICON"});
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
    if (request.isJson) {
        PrintJson(application);
        return Success;
    }
    Table table;
    table.Add({"name", application.value("name").toString()});
    table.Add({"user", QStringLiteral("%1 (%2)").arg(application.value("userName").toString(),
                                                     Id(application.value("uid")))});
    table.Add({"group", QStringLiteral("%1 (%2)").arg(application.value("groupName").toString(),
                                                      Id(application.value("gid")))});
    table.Add({"served by", ServedBy(application)});
    for (const Field& field : kFields) {
        table.Add({field.label, ToText(application.value(field.key))});
    }
    table.Print();
    PrintIcons("Desktop", application.value("desktopItems"));
    PrintIcons("Configuration pages", application.value("configPages"));
    return Success;
}

QVariantMap StartRequestOf(const QStringList& arguments)
{
    if (arguments.isEmpty()) {
        return {};
    }
    QVariantMap map{{"application", arguments.at(0)}, {"binary", arguments.at(1)}};
    if (arguments.size() > 2) {
        map.insert("params", QStringList(arguments.mid(2)).join(' '));
    }
    return map;
}

/// Sends Start and shows the answer.
ExitStatus SendStart(const Request& request, const QVariantMap& map, const QString& done)
{
    const QVariantMap answer = Wait(Daemon(request.timeout).applications.Start(map)).value();
    if (request.isJson) {
        PrintJson(answer);
    }
    if (answer.value("errorCode").toInt() != 0) {
        throw Failure(Refused, answer.value("errorText").toString());
    }
    if (!request.isJson) {
        Print(done);
    }
    return Success;
}

ExitStatus Start(const Request& request)
{
    if (request.arguments.size() == 1) {
        throw Misused("start", "needs a BINARY of that application");
    }
    const QString done = request.arguments.isEmpty()
                             ? QStringLiteral("all applications are being restarted")
                             : Printable(request.arguments.at(0) + ": started " + request.arguments.at(1));
    return SendStart(request, StartRequestOf(request.arguments), done);
}

ExitStatus Home(const Request& request)
{
    return SendStart(request, {{"default", true}}, "the default form is being shown");
}

/// Shows the answer of a method that has none.
ExitStatus Done(const Request& request, const QString& text)
{
    if (request.isJson) {
        PrintJson(QVariantMap());
    } else {
        Print(text);
    }
    return Success;
}

ExitStatus Stop(const Request& request)
{
    Wait(Daemon(request.timeout).applications.Terminate());
    return Done(request, "all applications are stopped");
}

ExitStatus Restart(const Request& request)
{
    if (!request.options.isSet("yes")) {
        Confirm("Stop all applications and restart the terminal?", "restart");
    }
    Wait(Daemon(request.timeout).applications.Restart(QString()));
    return Done(request, "the terminal is being restarted");
}

} // namespace

const std::vector<Verb>& ApplicationVerbs()
{
    static const std::vector<Verb> verbs{
        {"apps",
         "",
         0,
         0,
         "list the installed applications",
         "An application is served by FastCGI when its home has no cgi-bin directory. With --json, "
         "everything\n"
         "that the daemon knows of each application.",
         {{"names", nullptr, "print nothing but the names, one a line"}},
         Apps},
        {"app", "NAME", 1, 1, "show everything of one application", "", {}, App},
        {"start",
         "[APP BINARY [PARAM]...]",
         0,
         kAnyNumber,
         "restart all applications, or start one program",
         "Without arguments: stops what runs, starts the boot programs of all applications and shows the "
         "first\n"
         "page. The daemon answers before it does so; 'kxctl monitor' shows when it is done.\n\n"
         "With arguments: starts the program BINARY of the directory bin of APP under the application's own\n"
         "account. Parameters are split at blanks; there is no quoting. Options of kxctl stand before APP.",
         {},
         Start,
         true},
        {"home", "", 0, 0, "show the default form", "", {}, Home},
        {"stop", "", 0, 0, "stop all applications", "Returns when they have ended.", {}, Stop},
        {"restart",
         "",
         0,
         0,
         "stop all applications and restart the terminal",
         "Every application is asked to stop, then stopped, then the terminal reboots.",
         {{"yes", nullptr, "do not ask; needed where there is no terminal"}},
         Restart},
    };
    return verbs;
}

} // namespace kxctl
