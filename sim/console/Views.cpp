#include "Views.h"

#include <QDBusArgument>
#include <QRegularExpression>

#include <algorithm>
#include <array>

namespace {

constexpr std::array<const char*, 4> kServices = {"kxcore", "lighttpd", "screen", "dbus-daemon"};
constexpr int kLevelWidth = 8;
constexpr int kPlaceWidth = 38;

QString ServedBy(const QVariantMap& application)
{
    return application.value(QStringLiteral("fastCgi")).toBool() ? QStringLiteral("FastCGI")
                                                                 : QStringLiteral("CGI");
}

QString Account(const QString& user, const QString& uid, const QString& gid)
{
    return user + QStringLiteral(" (") + uid + QLatin1Char(':') + gid + QLatin1Char(')');
}

QString OrDash(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("-") : text;
}

int IconCount(const QVariantMap& application)
{
    const auto items = application.value(QStringLiteral("desktopItems")).value<QDBusArgument>();
    QVariantList icons;
    items >> icons;
    return icons.size();
}

QString ProgramName(const Process& process)
{
    return process.command.section(QLatin1Char(' '), 0, 0).section(QLatin1Char('/'), -1);
}

bool IsOfInterest(const Process& process)
{
    const QString name = ProgramName(process);
    return process.IsApplication() || std::find(kServices.begin(), kServices.end(), name) != kServices.end();
}

Style StyleOf(const QString& level)
{
    static const QStringList serious = {QStringLiteral("err"), QStringLiteral("crit"),
                                        QStringLiteral("alert"), QStringLiteral("emerg")};
    return serious.contains(level) ? Style::Bad : Style::Plain;
}

} // namespace

void ShowApplications(Screen& screen, const QList<QVariantMap>& applications)
{
    QList<QStringList> rows;
    for (const QVariantMap& application : applications) {
        const auto text = [&](const char* key) { return application.value(QLatin1String(key)).toString(); };
        rows.append({text("name"), Account(text("userName"), text("uid"), text("gid")), ServedBy(application),
                     QString::number(IconCount(application)), OrDash(text("runOnBoot"))});
    }
    screen.Table({QStringLiteral("name"), QStringLiteral("account"), QStringLiteral("served by"),
                  QStringLiteral("icons"), QStringLiteral("run on boot")},
                 rows);
}

void ShowProcesses(Screen& screen, const QList<Process>& processes)
{
    QList<QStringList> rows;
    for (const Process& process : processes) {
        if (IsOfInterest(process)) {
            rows.append({QString::number(process.pid),
                         Account(process.user, QString::number(process.uid), QString::number(process.gid)),
                         process.command});
        }
    }
    screen.Table({QStringLiteral("pid"), QStringLiteral("account"), QStringLiteral("command")}, rows);
}

void ShowPage(Screen& screen, const QVariantMap& page)
{
    const auto text = [&](const char* key) { return page.value(QLatin1String(key)).toString(); };
    screen.Table({QStringLiteral("title"), QStringLiteral("application"), QStringLiteral("address")},
                 {{OrDash(text("title")), OrDash(text("application")), OrDash(text("url"))}});
}

void ShowLogLine(Screen& screen, const QString& line)
{
    static const QRegularExpression record(QStringLiteral(
        "^\\w+ +\\d+ ([\\d:]+) \\S+ \\w+\\.(\\w+) \\w+(?:\\[\\d+\\])?: \\w+/\\S+ (\\S*:\\S*:\\d+): (.*)$"));
    const auto match = record.match(line);
    if (!match.hasMatch()) {
        screen.Line(screen.Styled(Style::Dim, QStringLiteral("  | ") + line));
        return;
    }
    screen.Line(screen.Styled(Style::Dim, QStringLiteral("  | ") + match.captured(1)) + QLatin1Char(' ') +
                screen.Styled(StyleOf(match.captured(2)), match.captured(2).leftJustified(kLevelWidth)) +
                screen.Styled(Style::Dim, match.captured(3).leftJustified(kPlaceWidth)) + QLatin1Char(' ') +
                match.captured(4));
}
