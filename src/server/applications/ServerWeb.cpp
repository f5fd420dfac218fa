#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"

#include <QFile>
#include <QRegExp>
#include <QUrl>

#include <unistd.h>

#include <array>
#include <cerrno>

using com::veltrasys::common::qt::qError;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr unsigned kPublicMode = 0777;
constexpr std::array<const char*, 3> kWebDirectories{"cgi-bin", "html", "files"};

} // namespace

void Server::CreateSymlinksForLighttpd(const QString& homeDir, const QString& name)
{
    const QString root = QStringLiteral("/var/run/www");
    if (!FileSystem::CreateDirIfNeeded(root, 0, 0, kPublicMode)) {
        qWarning() << KX_PREFIX(kSource) << "Failed to create www directory";
    }
    for (const char* entry : kWebDirectories) {
        const QString sub = QString::fromLatin1(entry);
        const QString dir = root + QLatin1Char('/') + sub;
        if (!FileSystem::CreateDirIfNeeded(dir, 0, 0, kPublicMode)) {
            qWarning() << KX_PREFIX(kSource) << "Failed to create directory " << dir;
        }
        if (!FileSystem::CreateSymlink(homeDir + QLatin1Char('/') + sub, dir + QLatin1Char('/') + name)) {
            qWarning() << KX_PREFIX(kSource) << "Failed to create symlink " << sub << " to " << name;
        }
    }
    if (!FileSystem::CreateDirIfNeeded(QStringLiteral("/var/run/sockets/"), 0, 0, kPublicMode)) {
        qWarning() << KX_PREFIX(kSource) << "Failed to create sockets directory";
    }
}

QString Server::PathToURI(const QString& page, QString& name)
{
    const QRegExp local(QStringLiteral("^http://localhost.*"));
    QString path = page;
    if (!name.isEmpty() && local.indexIn(page) < 0) {
        path = FileSystem::NormalizeFilePath(page, QStringLiteral("/home/") + name);
    }
    QString uri = path;
    name.clear();

    const QRegExp home(QStringLiteral("^/home/(.{,40})/html/"));
    if (home.indexIn(uri) >= 0) {
        name = home.cap(1);
        uri = QStringLiteral("http://localhost/cgi-bin/page/show?path=") + name + QLatin1Char('/') +
              uri.mid(home.matchedLength());
    }
    if (local.indexIn(uri) >= 0) {
        // The "?" makes the "w" optional, so this never matches an address as the page server takes it: an
        // address passed in is looked for as a file, and only pages given as paths are shown.
        const QRegExp show(QStringLiteral("^http://localhost/cgi-bin/page/show?path=(.{,40})/(.*)"));
        if (show.indexIn(uri) >= 0) {
            name = show.cap(1);
            path = QStringLiteral("/home/%1/html/%2").arg(show.cap(1), show.cap(2));
        }
    } else {
        uri.clear();
    }
    if (access(QFile::encodeName(path).constData(), F_OK) != 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Requested form doesn't exist (" << Misc::Excerpt(page)
                 << ") errno:" << error;
        name.clear();
        uri.clear();
    }
    return QString::fromLatin1(QUrl(uri).toEncoded());
}

} // namespace core::applications
