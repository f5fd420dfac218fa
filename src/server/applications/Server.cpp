#include "server/applications/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/dbus/ApplicationReply.h"

#include <QDir>
#include <QFileInfo>
#include <QTimer>

#include <unistd.h>

#include <array>

using com::veltrasys::common::qt::qError;
using core::configuration::ApplicationConfig;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";

/// In order of priority: a terminal that has several of them shows the first.
constexpr std::array<const char*, 4> kDefaultApplications{"desktop", "productiontest", "systemconfig",
                                                          "systemutils"};

} // namespace

Server::Server()
{
    FileSystem::RemoveFile(QStringLiteral("/var/run/www/cgi-bin"));
    FileSystem::RemoveFile(QStringLiteral("/var/run/www/html"));
    FileSystem::RemoveFile(QStringLiteral("/var/run/www/files"));

    m_restartTimer = new QTimer(this);
    m_restartTimer->setSingleShot(true);
    connect(m_restartTimer, &QTimer::timeout, this, &Server::OnRestartTimer);

    Start(QVariantMap());
}

Server::~Server() = default;

QList<QVariantMap> Server::Enumerate()
{
    ApplicationReply reply;
    m_applications.clear();
    try {
        const QStringList names =
            QDir(QStringLiteral("/home/")).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
        core::configuration::AccountNames accounts;
        for (const QString& name : names) {
            const ApplicationConfig config = m_parser.GatherApplicationData(name, accounts);
            reply.Append(config);
            m_applications.push_back(config);
            CreateSymlinksForLighttpd(config.m_homeDir, config.m_name);
        }
        for (const QString& name : reply.LeaveOutTheLargest()) {
            qError() << KX_PREFIX(kSource) << "Too much in app.conf, left out of the reply: " << name;
        }
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "Unexpected exception";
    }
    return reply.List();
}

QString Server::GetNameOfInstalledDefaultApp()
{
    for (const char* candidate : kDefaultApplications) {
        QString name = QString::fromLatin1(candidate);
        const QFileInfo index(QStringLiteral("/home/%1/html/index.html").arg(name));
        if (index.exists() && index.isFile()) {
            return name;
        }
    }
    return {};
}

bool Server::IsValidAppID(unsigned uid, unsigned gid)
{
    return ProcessManager::IsApplicationIdentity(uid, gid);
}

bool Server::HasShowOnceForm()
{
    return access(kShowOnceForm, F_OK) == 0;
}

} // namespace core::applications
