#include "Conflicts.h"
#include "Json.h"
#include "Verbs.h"
#include "check/AppCheck.h"
#include "common/Output.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace kxctl {
namespace {

using check::Problem;
using check::Report;
using check::Severity;
using cli::Print;
using cli::Printable;

QString NameOf(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

int Count(const Report& report, Severity severity)
{
    const auto& problems = report.problems;
    return static_cast<int>(std::count_if(problems.begin(), problems.end(), [&](const Problem& problem) {
        return problem.severity == severity;
    }));
}

/// In the form of compilers, which editors understand.
void PrintProblem(const QString& directory, const Problem& problem)
{
    QString place = problem.file.isEmpty() ? directory : directory + '/' + problem.file;
    if (problem.line > 0) {
        place += QStringLiteral(":%1").arg(problem.line);
    }
    const QString element =
        problem.element.isEmpty() ? QString() : QStringLiteral("<%1>: ").arg(problem.element);
    const cli::Style style = problem.severity == Severity::Error ? cli::Style::Red : cli::Style::Yellow;
    Print(Printable(place) + ": " + Styled(NameOf(problem.severity) + ':', style) + ' ' +
          Printable(element + problem.text));
}

void PrintReport(const QString& directory, const Report& report)
{
    for (const Problem& problem : report.problems) {
        PrintProblem(directory, problem);
    }
    const QString counts = QStringLiteral("errors: %1, warnings: %2")
                               .arg(Count(report, Severity::Error))
                               .arg(Count(report, Severity::Warning));
    Print(Printable(report.name) + ": " + (report.problems.isEmpty() ? "ok" : counts));
}

QVariantMap ToMap(const Report& report)
{
    QVariantList problems;
    for (const Problem& problem : report.problems) {
        problems.append(QVariantMap{{"severity", NameOf(problem.severity)},
                                    {"file", problem.file},
                                    {"line", problem.line},
                                    {"element", problem.element},
                                    {"text", problem.text}});
    }
    return {{"name", report.name}, {"directory", report.directory}, {"problems", problems}};
}

Report CheckDirectory(const Request& request, const QString& directory)
{
    const QFileInfo folder(QFileInfo(directory).absoluteFilePath());
    if (!folder.isDir()) {
        throw request.Misused(QStringLiteral("'%1' is no directory").arg(directory));
    }
    const QString path = folder.canonicalFilePath();
    const QString name = request.IsSet("name") ? request.Value("name") : path.section('/', -1);
    if (name.isEmpty() || name.contains('/')) {
        throw request.Misused(
            QStringLiteral("'%1' is no name of an application; --name gives one").arg(name));
    }
    return check::CheckApplication(path, name);
}

void AddConflicts(QVector<Report>& reports)
{
    QVector<QVariantMap> settings;
    std::transform(reports.begin(), reports.end(), std::back_inserter(settings),
                   [](const Report& report) { return report.settings; });
    const QVariantMap conflicts = FindConflicts(settings);
    for (Report& report : reports) {
        for (const QString& text : conflicts.value(report.name).toStringList()) {
            report.problems.append({Severity::Error, "app.conf", 0, {}, text});
        }
    }
}

ExitStatus Check(const Request& request)
{
    QStringList directories = request.arguments;
    if (request.IsSet("name") && directories.size() != 1) {
        throw request.Misused("--name goes with one DIR");
    }
    if (directories.isEmpty()) {
        for (const QString& home : QDir("/home").entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
            directories.append("/home/" + home);
        }
    }
    QVector<Report> reports;
    for (const QString& directory : qAsConst(directories)) {
        reports.append(CheckDirectory(request, directory));
    }
    AddConflicts(reports);
    QVariantList list;
    for (int index = 0; index < reports.size(); ++index) {
        list.append(ToMap(reports.at(index)));
        if (!request.IsSet("json")) {
            PrintReport(QDir::cleanPath(directories.at(index)), reports.at(index));
        }
    }
    if (request.IsSet("json")) {
        PrintJson(list);
    }
    const bool hasErrors = std::any_of(reports.begin(), reports.end(), [](const Report& report) {
        return Count(report, Severity::Error) > 0;
    });
    return hasErrors ? cli::Refused : cli::Success;
}

} // namespace

Verb CheckVerb()
{
    return {
        "check [DIR]...",
        "check application directories, without the daemon",
        Check,
        "Prints what the daemon would log of DIR/app.conf, and what it would pass over in silence, as\n"
        "FILE:LINE: error: <ELEMENT>: TEXT; of several directories also what is wrong beside each other.\n"
        "Without DIR, checks all of /home. A warning marks what works, but perhaps not as meant.",
        {{"name", "NAME", "name of the application (default: the last part of DIR)"}}};
}

} // namespace kxctl
