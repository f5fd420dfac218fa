#include "AppCheck.h"

#include "ElementCheck.h"
#include "XmlDiagnosis.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/XmlReader.h"
#include "server/applications/processmanager/ProcessManager.h"

#include <QDir>
#include <QDomDocument>
#include <QFileInfo>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kxctl::check {
namespace {

using core::applications::IsValidAppID;
using core::applications::kFirstApplicationId;
using core::applications::kLastApplicationId;
using core::configuration::kMaxXmlSize;
using core::configuration::Parser;

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

/// Only a home has to belong to the application; a developer's copy belongs to the developer.
void CheckOwner(const QString& directory, const QString& name, Problems& problems)
{
    if (directory != QFileInfo("/home/" + name).canonicalFilePath()) {
        return;
    }
    unsigned uid = 0;
    unsigned gid = 0;
    Parser::GetResourceUIDandGID(&directory, uid, gid);
    if (!IsValidAppID(uid, gid)) {
        problems.append(OfDirectory(
            Severity::Warning, QStringLiteral("owned by %1:%2, which is no application account (%3 to %4)")
                                   .arg(uid)
                                   .arg(gid)
                                   .arg(kFirstApplicationId)
                                   .arg(kLastApplicationId)));
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
    return info.st_size > kMaxXmlSize ? QStringLiteral("larger than %1 bytes").arg(kMaxXmlSize)
                                      : QStringLiteral("cannot be read");
}

void CheckAppConf(const QString& directory, const QString& name, Problems& problems)
{
    const QString path = directory + "/app.conf";
    QByteArray xml;
    QDomDocument document;
    if (!core::configuration::ReadConfigFile(path, xml)) {
        problems.append(
            {Severity::Error, "app.conf", 0, {}, ReadFailure(path) + "; the application has no settings"});
    } else if (!core::configuration::ParseXml(xml, document)) {
        problems.append(DiagnoseXml(xml));
    } else {
        ElementCheck(directory, name, problems).CheckRoot(document.documentElement());
    }
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

Problems CheckApplication(const QString& directory, const QString& name)
{
    Problems problems;
    CheckName(name, problems);
    CheckOwner(directory, name, problems);
    CheckAppConf(directory, name, problems);
    CheckPrograms(directory, "bin", "so it cannot be started", problems);
    CheckPrograms(directory, "cgi-bin", "so the web server may serve it as text", problems);
    return problems;
}

} // namespace kxctl::check
