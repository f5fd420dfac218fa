#include "AppCheck.h"

#include "ElementCheck.h"
#include "Messages.h"
#include "server/applications/ApplicationIds.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/XmlReader.h"

#include <QDir>
#include <QDomDocument>
#include <QFileInfo>
#include <QXmlStreamReader>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kxctl::check {
namespace {

using core::applications::IsApplicationId;
using core::applications::kFirstApplicationId;
using core::applications::kLastApplicationId;
using core::configuration::Parser;

constexpr int kMaxNameLength = 40; ///< of an application whose pages have addresses
constexpr int kMaxConfSize = 1024 * 1024;
constexpr int kMaxConfDepth = 100;

Problem OfDirectory(Severity severity, const QString& text)
{
    return {severity, {}, 0, {}, text};
}

void CheckName(const QString& name, Problems& problems)
{
    if (name.size() > kMaxNameLength) {
        problems.append(
            OfDirectory(Severity::Error,
                        QStringLiteral("the name is longer than %1 characters, so its pages have no address")
                            .arg(kMaxNameLength)));
    }
    if (std::any_of(name.begin(), name.end(), [](QChar character) { return character.unicode() > '~'; })) {
        problems.append(
            OfDirectory(Severity::Warning, "the name is not ASCII, which does not work everywhere"));
    }
}

/// A developer's copy belongs to the developer, and a home need not hold an application.
bool IsHome(const QString& directory, const QString& name)
{
    return directory == QFileInfo("/home/" + name).canonicalFilePath();
}

void CheckOwner(const QString& directory, const QString& name, Problems& problems)
{
    if (!IsHome(directory, name)) {
        return;
    }
    unsigned uid = 0;
    unsigned gid = 0;
    Parser::GetResourceUIDandGID(&directory, uid, gid);
    if (!IsApplicationId(uid) || !IsApplicationId(gid)) {
        problems.append(OfDirectory(
            Severity::Warning, QStringLiteral("owned by %1:%2, which is no application account (%3 to %4)")
                                   .arg(uid)
                                   .arg(gid)
                                   .arg(kFirstApplicationId)
                                   .arg(kLastApplicationId)));
    }
}

/// Tells why the daemon does not take a text that its parser has refused.
Problem DiagnoseXml(const QByteArray& xml)
{
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    while (!reader.atEnd() && depth <= kMaxConfDepth) {
        const auto token = reader.readNext();
        depth += (token == QXmlStreamReader::StartElement ? 1 : 0) -
                 (token == QXmlStreamReader::EndElement ? 1 : 0);
    }
    const QString reason = depth > kMaxConfDepth ? "elements are nested deeper than 100 levels"
                           : reader.hasError()   ? "not well-formed: " + reader.errorString()
                                                 : "too many entities, or too much text in them";
    return {Severity::Error,
            "app.conf",
            static_cast<int>(reader.lineNumber()),
            {},
            (reason.endsWith('.') ? reason.chopped(1) : reason) + "; nothing of the file is read"};
}

/// Why the daemon does not read a file.
QString ReadFailure(const QString& path)
{
    struct stat info = {};
    if (stat(QFile::encodeName(path).constData(), &info) != 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return "not a regular file";
    }
    return info.st_size > kMaxConfSize ? "larger than 1 MiB" : "cannot be read";
}

void CheckAppConf(Report& report)
{
    const QString path = report.directory + "/app.conf";
    Problems& problems = report.problems;
    core::configuration::ApplicationConfig settings(report.name);
    QByteArray xml;
    QDomDocument document;
    if (!core::configuration::ReadConfigFile(path, xml)) {
        const bool isPlainHome =
            IsHome(report.directory, report.name) && !QFileInfo(path).isSymLink() && !QFileInfo::exists(path);
        problems.append({isPlainHome ? Severity::Warning : Severity::Error,
                         "app.conf",
                         0,
                         {},
                         ReadFailure(path) + "; the application has no settings"});
    } else if (!core::configuration::ParseXml(xml, document)) {
        problems.append(DiagnoseXml(xml));
    } else {
        CheckElements(report.directory, report.name, document.documentElement(), problems);
        // Each element's messages have been taken in there.
        MessagesOf([&] { Parser::ParseApplicationConfig(document, settings); });
    }
    report.settings = settings;
}

/// Files of a directory that holds programs.
void CheckPrograms(const QString& directory, const QString& folder, const QString& consequence,
                   Problems& problems)
{
    const QDir programs(directory + '/' + folder);
    for (const QFileInfo& file : programs.entryInfoList(QDir::Files, QDir::Name)) {
        if (!file.permission(QFile::ExeOwner)) {
            problems.append(
                {Severity::Warning, folder + '/' + file.fileName(), 0, {}, "not executable, " + consequence});
        }
    }
}

} // namespace

Report CheckApplication(const QString& directory, const QString& name)
{
    Report report{name, directory, {}, {}};
    CheckName(name, report.problems);
    CheckOwner(directory, name, report.problems);
    CheckAppConf(report);
    CheckPrograms(directory, "bin", "so it cannot be started", report.problems);
    CheckPrograms(directory, "cgi-bin", "so the web server may serve it as text", report.problems);
    return report;
}

} // namespace kxctl::check
