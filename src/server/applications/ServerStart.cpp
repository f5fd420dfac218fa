#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"

#include <QFileInfo>
#include <QMetaObject>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

using com::veltrasys::common::qt::qError;
using core::configuration::ApplicationConfig;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr auto kNoApplicationsPage = "http://localhost/cgi-bin/page/show?path=platform/misc/noapps.html";
constexpr auto kShowOncePage = "http://localhost/cgi-bin/page/show?path=platform/show_once.html";
constexpr auto kIndexPage = "html/index.html";
constexpr auto kDefaultCgiLink = "/var/run/www/cgi-bin-default";

/// A program below an application's bin directory.
struct Binary {
    QString directory; ///< canonical path of the bin directory
    QFileInfo file;    ///< as asked for
    QString path;      ///< canonical path of the program
    QString executed;  ///< the part of that path that the launcher executes, which ends at a blank
    struct stat info;  ///< of what is executed
};

// The checks of a launch; each returns the message of its failure, or an empty text.

QString FindBinary(const ApplicationConfig& config, const QString& name, Binary& binary)
{
    binary.directory = FileSystem::CanonicalPath(config.m_homeDir + QStringLiteral("/bin"));
    if (binary.directory.isEmpty()) {
        return QStringLiteral("Binary directory %1/bin doesn't exist").arg(config.m_homeDir);
    }
    binary.file.setFile(binary.directory + QLatin1Char('/') + name);
    binary.path = FileSystem::CanonicalPath(binary.file.filePath());
    if (binary.path.isEmpty()) {
        return QStringLiteral("Binary file %1 for app %2 doesn't exist")
            .arg(binary.file.filePath(), config.m_name);
    }
    return {};
}

QString CheckLocation(const Binary& binary)
{
    if (!binary.path.startsWith(binary.directory)) {
        return QStringLiteral("Binary file %1 isn't located in bin dir").arg(binary.file.path());
    }
    return {};
}

QString StartFailure(const QString& commandLine)
{
    return QStringLiteral("Failed to start %1 binary").arg(commandLine);
}

QString LookAt(Binary& binary, const QString& commandLine)
{
    binary.executed = binary.path.section(QLatin1Char(' '), 0, 0);
    if (!FileSystem::StatCanonicalPath(binary.executed, binary.info)) {
        const int error = errno;
        qError() << KX_PREFIX_AS(kSource, "StartApplicationBinary") << "Unable to examine" << binary.executed
                 << "errno:" << error;
        return StartFailure(commandLine);
    }
    return {};
}

QString CheckExecutable(const Binary& binary)
{
    if ((binary.info.st_mode & S_IXUSR) == 0) {
        return QStringLiteral("Binary file %1 is not executable").arg(binary.file.path());
    }
    return {};
}

/// Whether the application may have lent itself a program of another account: it can make its bin a link to
/// any directory. What lies in its home has been put there, by root or by that account.
bool IsBorrowed(const Binary& binary, const ApplicationConfig& config)
{
    const bool isOwn = binary.info.st_uid == config.m_uid && binary.info.st_gid == config.m_gid;
    return !isOwn && config.m_uid != 0 &&
           !binary.executed.startsWith(FileSystem::CanonicalPath(config.m_homeDir) + QLatin1Char('/'));
}

/// A program of an application account runs as its owner, any other as the application.
QString ChooseIdentity(const Binary& binary, ApplicationConfig& config)
{
    const bool isApplications = Server::IsValidAppID(binary.info.st_uid, binary.info.st_gid);
    if (isApplications && !IsBorrowed(binary, config)) {
        config.m_uid = binary.info.st_uid;
        config.m_gid = binary.info.st_gid;
    } else if (isApplications || !Server::IsValidAppID(config.m_uid, config.m_gid)) {
        return QStringLiteral("Invalid owner of file %1. Must be application user").arg(binary.file.path());
    }
    return {};
}

} // namespace

QVariantMap Server::Start(const QVariantMap& request)
{
    QVariantMap result;
    try {
        if (request.isEmpty()) {
            FileSystem::RemoveFile(QStringLiteral("/var/run/sockets"));
            Enumerate();
            result.insert(QStringLiteral("return"), true);
            QMetaObject::invokeMethod(this, "StartApplication", Qt::QueuedConnection);
            return result;
        }
        const QString application = request.value(QStringLiteral("application")).toString();
        if (request.value(QStringLiteral("default")).toBool()) {
            ShowFormOf(QString::fromLatin1(kIndexPage), GetNameOfInstalledDefaultApp());
            if (application.isEmpty()) {
                return result;
            }
        }
        result = StartApplicationBinary(application, request.value(QStringLiteral("binary")).toString(),
                                        request.value(QStringLiteral("params")).toString());
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "Unexpected exception";
    }
    return result;
}

QVariantMap Server::StartApplicationBinary(const QString& application, const QString& binary,
                                           const QString& params)
{
    QVariantMap result{{QStringLiteral("errorCode"), -1}};
    const QString failure = Misc::Excerpt(LaunchBinary(application, binary, params));
    if (failure.isEmpty()) {
        result.insert(QStringLiteral("errorCode"), 0);
    } else {
        result.insert(QStringLiteral("errorText"), failure);
        qError() << KX_PREFIX(kSource) << failure;
    }
    return result;
}

QString Server::LaunchBinary(const QString& application, const QString& binary, const QString& params)
{
    const ApplicationConfig* installed = FindApplication(application);
    if (installed == nullptr) {
        return QStringLiteral("Application %1 doesn't exist").arg(application);
    }
    ApplicationConfig config(*installed);
    Binary program{};
    QString failure = FindBinary(config, binary, program);
    if (failure.isEmpty()) {
        failure = CheckLocation(program);
    }
    const QString commandLine = program.path + QLatin1Char(' ') + params;
    if (failure.isEmpty()) {
        failure = LookAt(program, commandLine);
    }
    if (failure.isEmpty()) {
        failure = CheckExecutable(program);
    }
    if (failure.isEmpty()) {
        failure = ChooseIdentity(program, config);
    }
    if (!failure.isEmpty()) {
        return failure;
    }
    config.m_fastCgi = false; // only the program started at boot serves the application's socket
    return m_processManager.StartProcess(commandLine, config) ? QString() : StartFailure(commandLine);
}

const ApplicationConfig* Server::FindApplication(const QString& name) const
{
    const auto found = std::find_if(m_applications.begin(), m_applications.end(),
                                    [&](const ApplicationConfig& config) { return config.m_name == name; });
    return found == m_applications.end() ? nullptr : &*found;
}

void Server::StartApplication()
{
    try {
        FileSystem::RemoveFile(QString::fromLatin1(kDefaultCgiLink));
        if (HasShowOnceForm()) {
            m_browser.ShowPage(QString::fromLatin1(kShowOncePage), QString::fromLatin1(kShowOnceForm));
            return;
        }
        Terminate();
        RunStartSequence();
        emit OnStarted(QVariantMap());
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "Unexpected exception";
    }
}

void Server::RunStartSequence()
{
    const BootPlan plan = StartBootPrograms();
    LinkDefaultCgi(plan);
    // Two applications that both want the screen at boot cancel each other.
    if (plan.page.isEmpty() || plan.manyShowOnBoot) {
        ShowFormOf(QString::fromLatin1(kIndexPage), GetNameOfInstalledDefaultApp());
    } else {
        ShowFormOf(plan.page, plan.pageApp);
    }
}

Server::BootPlan Server::StartBootPrograms()
{
    BootPlan plan;
    for (const ApplicationConfig& config : m_applications) {
        if (config.m_cgiBinDefault) {
            ++plan.cgiDefaults;
            plan.cgiDefaultApp = config.m_name;
        }
        if (!config.m_runOnBoot.isEmpty() && !m_processManager.StartProcess(config.m_runOnBoot, config)) {
            qError() << KX_PREFIX_AS(kSource, "StartApplication") << "Failed to start application "
                     << config.m_name;
            continue;
        }
        if (config.m_showOnBoot.isEmpty()) {
            continue;
        }
        if (plan.page.isEmpty()) {
            plan.page = config.m_showOnBoot;
            plan.pageApp = config.m_name;
        } else {
            plan.manyShowOnBoot = true;
        }
    }
    return plan;
}

void Server::LinkDefaultCgi(const BootPlan& plan)
{
    if (plan.cgiDefaults == 1) {
        FileSystem::CreateSymlink(QStringLiteral("/home/%1/cgi-bin").arg(plan.cgiDefaultApp),
                                  QString::fromLatin1(kDefaultCgiLink));
    } else if (plan.cgiDefaults > 1) {
        qError()
            << KX_PREFIX_AS(kSource, "StartApplication")
            << "Multiple applications have <cgi_bin_default>true</cgi_bin_default> configured. Only one is "
               "allowed.";
    }
}

void Server::ShowFormOf(const QString& page, QString application)
{
    if (application.isEmpty()) {
        m_browser.ShowPage(QString::fromLatin1(kNoApplicationsPage), QString());
    } else {
        m_browser.ShowPage(PathToURI(page, application), QString());
    }
}

} // namespace core::applications
