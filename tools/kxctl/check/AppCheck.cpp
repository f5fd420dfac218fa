#include "AppCheck.h"

#include "ElementCheck.h"
#include "Messages.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/XmlReader.h"
#include "server/applications/processmanager/ProcessManager.h"

#include <QDir>
#include <QDomDocument>
#include <QFileInfo>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kxctl::check {
namespace {

using core::configuration::Parser;

constexpr int kMaxNameLength = 40; ///< of an application whose pages have addresses

void CheckName(Report& report)
{
    if (report.name.size() > kMaxNameLength) {
        report.Add(Severity::Error, {},
                   "the name is longer than 40 characters, so its pages have no address");
    }
    if (report.name.toUtf8().size() != report.name.size()) {
        report.Add(Severity::Warning, {}, "the name is not ASCII, which does not work everywhere");
    }
}

/// A developer's copy belongs to the developer.
bool IsHome(const Report& report)
{
    return report.directory == QFileInfo("/home/" + report.name).canonicalFilePath();
}

void CheckOwner(Report& report)
{
    unsigned uid = 0;
    unsigned gid = 0;
    Parser::GetResourceUIDandGID(&report.directory, uid, gid);
    if (!core::applications::IsValidAppID(uid, gid)) {
        report.Add(Severity::Warning, {},
                   QStringLiteral("owned by %1:%2, which is no application account (4000 to 4999)")
                       .arg(QString::number(uid), QString::number(gid)));
    }
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
    return info.st_size > core::configuration::kMaxXmlSize ? "larger than 1 MiB" : "cannot be read";
}

void CheckAppConf(Report& report)
{
    const QString path = report.directory + "/app.conf";
    core::configuration::ApplicationConfig settings(report.name);
    QByteArray xml;
    QDomDocument document;
    core::configuration::XmlError error;
    if (!core::configuration::ReadConfigFile(path, xml)) {
        // A home need not be an application's.
        const bool isMissing = !QDir(report.directory).entryList(QDir::AllEntries).contains("app.conf");
        report.Add(isMissing && IsHome(report) ? Severity::Warning : Severity::Error, "app.conf",
                   ReadFailure(path) + "; the application has no settings");
    } else if (!core::configuration::ParseXml(xml, document, &error)) {
        report.problems.append({Severity::Error,
                                "app.conf",
                                error.line,
                                {},
                                QStringLiteral("not well-formed: %1 (column %2); nothing of the file is read")
                                    .arg(error.text, QString::number(error.column))});
    } else {
        CheckElements(report, document.documentElement());
        // Each element's messages have been taken in there.
        MessagesOf([&] { Parser::ParseApplicationConfig(document, settings); });
    }
    report.settings = settings;
}

/// \param folder  holds programs
void CheckPrograms(Report& report, const QString& folder, const QString& consequence)
{
    for (const QFileInfo& file :
         QDir(report.directory + '/' + folder).entryInfoList(QDir::Files, QDir::Name)) {
        if (!file.permission(QFile::ExeOwner)) {
            report.Add(Severity::Warning, folder + '/' + file.fileName(), "not executable, " + consequence);
        }
    }
}

} // namespace

Report CheckApplication(const QString& directory, const QString& name)
{
    Report report{name, directory, {}, {}};
    if (const QFileInfo folder(directory); !folder.isReadable() || !folder.isExecutable()) {
        report.Add(Severity::Error, {}, "not checked: this account may not read it");
        return report;
    }
    CheckName(report);
    if (IsHome(report)) {
        CheckOwner(report);
    }
    CheckAppConf(report);
    CheckPrograms(report, "bin", "so it cannot be started");
    CheckPrograms(report, "cgi-bin", "so the web server may serve it as text");
    return report;
}

} // namespace kxctl::check
