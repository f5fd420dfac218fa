#include "Files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace {

void SetOwner(const QString& path, uid_t uid, gid_t gid, mode_t mode)
{
    const QByteArray name = QFile::encodeName(path);
    if (chown(name.constData(), uid, gid) != 0 || chmod(name.constData(), mode) != 0) {
        qFatal("cannot set the owner of %s", name.constData());
    }
}

} // namespace

void MakeDirectory(const QString& path, uid_t uid, gid_t gid, mode_t mode)
{
    QDir().mkpath(path);
    SetOwner(path, uid, gid, mode);
}

void WriteFile(const QString& path, const QByteArray& content, uid_t uid, gid_t gid, mode_t mode)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
    file.close();
    SetOwner(path, uid, gid, mode);
}

QByteArray ReadFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void CopyProgram(const QString& program, const QString& path, uid_t uid, gid_t gid)
{
    WriteFile(path, ReadFile(program), uid, gid, 0755);
}

void MakeLink(const QString& target, const QString& path, uid_t owner)
{
    QDir().mkpath(QFileInfo(path).path());
    if (!QFile::link(target, path) || lchown(QFile::encodeName(path).constData(), owner, owner) != 0) {
        qFatal("cannot link %s", qPrintable(path));
    }
}

void RemoveAll(const QString& path)
{
    std::error_code ignored;
    std::filesystem::remove_all(QFile::encodeName(path).toStdString(), ignored);
}

QString OwnerAndMode(const QString& path)
{
    struct stat info = {};
    if (lstat(QFile::encodeName(path).constData(), &info) != 0) {
        return {};
    }
    return QString("%1:%2 %3").arg(info.st_uid).arg(info.st_gid).arg(info.st_mode & 07777, 0, 8);
}
