#include "server/applications/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"

#include <QFile>
#include <QRegExp>
#include <QUrl>

#include <unistd.h>

#include <cerrno>

using com::veltrasys::common::qt::qError;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr unsigned kPublicMode = 0777;

} // namespace

void Server::CreateSymlinksForLighttpd(const QString& homeDir, const QString& name)
{
    if (!FileSystem::CreateDirIfNeeded("/var/run/www", 0, 0, kPublicMode)) {
        qWarning() << KX_PREFIX(kSource) << "Failed to create www directory";
    }
    for (const char* entry : {"cgi-bin", "html", "files"}) {
        const QString sub = entry;
        const QString dir = "/var/run/www/" + sub;
        if (!FileSystem::CreateDirIfNeeded(dir, 0, 0, kPublicMode)) {
            qWarning() << KX_PREFIX(kSource) << "Failed to create directory " << dir;
        }
        if (!FileSystem::CreateSymlink(homeDir + "/" + sub, dir + "/" + name)) {
            qWarning() << KX_PREFIX(kSource) << "Failed to create symlink " << sub << " to " << name;
        }
    }
    if (!FileSystem::CreateDirIfNeeded("/var/run/sockets/", 0, 0, kPublicMode)) {
        qWarning() << KX_PREFIX(kSource) << "Failed to create sockets directory";
    }
}

QString Server::PathToURI(const QString& page, QString& name)
{
    const QRegExp local("^http://localhost.*");
    QString path = page;
    if (!name.isEmpty() && local.indexIn(page) < 0) {
        path = FileSystem::NormalizeFilePath(page, "/home/" + name);
    }
    QString uri = path;
    name.clear();

    const QRegExp home("^/home/(.{,40})/html/");
    if (home.indexIn(uri) >= 0) {
        name = home.cap(1);
        uri = "http://localhost/cgi-bin/page/show?path=" + name + "/" + uri.mid(home.matchedLength());
    }
    if (local.indexIn(uri) >= 0) {
        // The "?" makes the "w" optional, so this never matches an address as the page server takes it: an
        // address passed in is looked for as a file, and only pages given as paths are shown.
        const QRegExp show("^http://localhost/cgi-bin/page/show?path=(.{,40})/(.*)");
        if (show.indexIn(uri) >= 0) {
            name = show.cap(1);
            path = QStringLiteral("/home/%1/html/%2").arg(show.cap(1), show.cap(2));
        }
    } else {
        uri.clear();
    }
    if (access(QFile::encodeName(path).constData(), F_OK) != 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Requested form doesn't exist (" << page << ") errno:" << error;
        name.clear();
        uri.clear();
    }
    return QString::fromLatin1(QUrl(uri).toEncoded());
}

} // namespace core::applications
