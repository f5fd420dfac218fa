#include "Output.h"
#include "Verbs.h"
#include "check/AppCheck.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace kxctl {
namespace {

using check::Problem;
using check::Problems;
using check::Severity;

QString NameOf(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

int Count(const Problems& problems, Severity severity)
{
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
    const Style style = problem.severity == Severity::Error ? Style::Red : Style::Yellow;
    Print(Printable(place) + ": " + Styled(NameOf(problem.severity) + ':', style) + ' ' +
          Printable(element + problem.text));
}

QVariantMap ToMap(const Problem& problem)
{
    return {{"severity", NameOf(problem.severity)},
            {"file", problem.file},
            {"line", problem.line},
            {"element", problem.element},
            {"text", problem.text}};
}

void PrintReport(const QString& directory, const QString& name, const Problems& problems)
{
    for (const Problem& problem : problems) {
        PrintProblem(directory, problem);
    }
    Print(Printable(name) + QStringLiteral(": errors: %1, warnings: %2")
                                .arg(Count(problems, Severity::Error))
                                .arg(Count(problems, Severity::Warning)));
}

ExitStatus Check(const Request& request)
{
    const QString directory = request.arguments.first();
    const QFileInfo folder(QFileInfo(directory).absoluteFilePath());
    if (!folder.isDir()) {
        throw Misused("check", QStringLiteral("'%1' is no directory").arg(directory));
    }
    const QString path = folder.canonicalFilePath();
    const QString name =
        request.options.isSet("name") ? request.options.value("name") : path.section('/', -1);
    if (name.isEmpty() || name.contains('/')) {
        throw Misused("check",
                      QStringLiteral("'%1' is no name of an application; --name gives one").arg(name));
    }
    const Problems problems = check::CheckApplication(path, name);
    if (request.isJson) {
        QVariantList list;
        std::transform(problems.begin(), problems.end(), std::back_inserter(list), ToMap);
        PrintJson(QVariantMap{{"name", name}, {"directory", path}, {"problems", list}});
    } else {
        PrintReport(QDir::cleanPath(directory), name, problems);
    }
    return Count(problems, Severity::Error) > 0 ? Refused : Success;
}

} // namespace

const std::vector<Verb>& CheckVerbs()
{
    static const std::vector<Verb> verbs{
        {"check",
         "DIR",
         1,
         1,
         "check an application directory, without the daemon",
         "Reads DIR/app.conf as the daemon would if DIR were /home/NAME, and prints what the daemon would "
         "log\n"
         "and what it would pass over in silence: FILE:LINE: error: <ELEMENT>: TEXT. Exit status 1 if there "
         "is\n"
         "an error; a warning marks what works, but perhaps not as meant.",
         {{"name", "NAME", "name of the application (default: the last part of DIR)"}},
         Check},
    };
    return verbs;
}

} // namespace kxctl
