#include "server/applications/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"
#include "misc/Utils.h"

#include <QDir>
#include <QFileInfo>
#include <QTimer>

#include <unistd.h>

using core::configuration::ApplicationConfig;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";

} // namespace

Server::Server()
{
    FileSystem::RemoveFile("/var/run/www/cgi-bin");
    FileSystem::RemoveFile("/var/run/www/html");
    FileSystem::RemoveFile("/var/run/www/files");

    m_restartTimer = new QTimer(this);
    m_restartTimer->setSingleShot(true);
    connect(m_restartTimer, &QTimer::timeout, this, &Server::OnRestartTimer);

    Start(QVariantMap());
}

Server::~Server() = default;

QList<QVariantMap> Server::Enumerate()
{
    QList<QVariantMap> list;
    m_applications.clear();
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        for (const QString& name : QDir("/home/").entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
            const ApplicationConfig config = m_parser.GatherApplicationData(name);
            list.append(config);
            m_applications.push_back(config);
            CreateSymlinksForLighttpd(config.m_homeDir, config.m_name);
        }
    });
    return list;
}

QString Server::GetNameOfInstalledDefaultApp()
{
    for (const char* name : {"desktop", "productiontest", "systemconfig", "systemutils"}) {
        const QFileInfo index(QStringLiteral("/home/%1/html/index.html").arg(name));
        if (index.exists() && index.isFile()) {
            return name;
        }
    }
    return {};
}

bool Server::IsValidAppID(unsigned uid, unsigned gid)
{
    return applications::IsValidAppID(uid, gid);
}

bool Server::HasShowOnceForm()
{
    return access(kShowOnceForm, F_OK) == 0;
}

} // namespace core::applications
