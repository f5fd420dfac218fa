#include "misc/Utils.h"

#include "misc/Log.h"
#include "misc/UniqueFd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

using com::veltrasys::common::qt::qError;

namespace {

constexpr auto kSource = "/pkgs/kx-core/src/misc/Utils";

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr auto kRpmLock = "/var/lib/rpm/.rpm.lock";
constexpr auto kInstallerLock = "/var/lib/installer/database/.rpm.lock";

/// Opens a directory whose owner, mode or links are to be set. Where others may write to its parent, a link
/// in its place may be planted and would have that done to any other directory: it is not followed there.
/// \return none, with errno set, when it cannot be opened
UniqueFd OpenDirectory(const QString& path)
{
    const QString name = QDir::cleanPath(path); // a slash at the end would follow a final link
    struct stat parent = {};
    if (stat(QFile::encodeName(QFileInfo(name).path()).constData(), &parent) != 0) {
        return UniqueFd();
    }
    const bool othersMayWrite = (parent.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return UniqueFd(
        open(QFile::encodeName(name).constData(), kDirectoryFlags | (othersMayWrite ? O_NOFOLLOW : 0)));
}

/// Empties a directory through its descriptor: an application that owns a part of the tree cannot lead the
/// removal elsewhere by exchanging a folder for a link.
/// \param levels  what lies deeper stays, since each level takes a descriptor and a piece of the stack
void RemoveEntries(UniqueFd folder, int levels)
{
    if (levels == 0) {
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(fdopendir(folder.Get()), closedir);
    if (!dir) {
        return;
    }
    const int fd = folder.Release(); // closed with dir
    std::vector<QByteArray> names;
    while (const dirent* entry = readdir(dir.get())) {
        names.emplace_back(entry->d_name);
    }
    for (const QByteArray& name : names) {
        if (name != "." && name != ".." && unlinkat(fd, name.constData(), 0) != 0) {
            RemoveEntries(UniqueFd(openat(fd, name.constData(), kDirectoryFlags | O_NOFOLLOW)), levels - 1);
            unlinkat(fd, name.constData(), AT_REMOVEDIR);
        }
    }
}

bool SetLock(int fd, short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock) == 0;
}

} // namespace

namespace FileSystem {

bool CreateSymlink(const QString& target, const QString& linkPath)
{
    const QFileInfo link(linkPath);
    if (link.symLinkTarget() == target) {
        return true;
    }
    const UniqueFd folder = OpenDirectory(link.path());
    const QByteArray name = QFile::encodeName(link.fileName());
    unlinkat(folder.Get(), name.constData(), 0);
    return symlinkat(QFile::encodeName(target).constData(), folder.Get(), name.constData()) == 0;
}

QString NormalizeFilePath(const QString& path, const QString& homeDir)
{
    if (path.isEmpty()) {
        return {};
    }
    if (path.startsWith("./") || path.startsWith("~/")) {
        return QDir::cleanPath(homeDir + "/" + path.mid(2));
    }
    if (path.startsWith('/')) {
        return QDir::cleanPath(path);
    }
    return QDir::cleanPath(homeDir + "/" + path);
}

bool DirExists(const QString& path)
{
    return QDir().exists(path);
}

bool RemoveFile(const QString& path)
{
    constexpr int kLevels = 500;
    const QByteArray name = path.toLatin1();
    RemoveEntries(UniqueFd(open(name.constData(), kDirectoryFlags | O_NOFOLLOW)), kLevels);
    static_cast<void>(std::remove(name.constData()));
    return true;
}

bool CreateDirIfNeeded(const QString& path, unsigned uid, unsigned gid, unsigned mode)
{
    if (!QFileInfo(path).isDir() && !QDir().mkpath(path)) {
        return false;
    }
    const UniqueFd dir = OpenDirectory(path);
    if (!dir || fchown(dir.Get(), uid, gid) != 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to create dir = " << error;
        return false;
    }
    if (fchmod(dir.Get(), mode) != 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to chmod = " << error;
        return false;
    }
    return true;
}

} // namespace FileSystem

namespace Misc {

volatile std::sig_atomic_t g_ignore_sigChld = 0;

int ExecShell(const char* command)
{
    g_ignore_sigChld = 1;
    const int rc = std::system(command);
    g_ignore_sigChld = 0;

    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
    return static_cast<int>((static_cast<unsigned>(rc) >> 8U) & 0xFFU);
}

void Pause(std::chrono::milliseconds duration)
{
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + duration);
}

bool IsUpdaterRunning()
{
    return access("/var/lib/installer/.update_started", F_OK) == 0;
}

bool LockFile(const char* path)
{
    const mode_t previous = umask(022);
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    umask(previous);
    if (fd < 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to open file " << path << error;
        return false;
    }
    // It stays open. Closing any descriptor of the file would release the process's lock on it.
    if (!SetLock(fd, F_WRLCK)) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to lock file " << path << error;
        return false;
    }
    return true;
}

bool UnLockFile(const char* path)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to open file " << path << error;
        return false;
    }
    if (!SetLock(fd, F_UNLCK)) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to unlock file " << path << error;
        return false;
    }
    return true;
}

bool LockRPMFile()
{
    const bool rpm = LockFile(kRpmLock);
    const bool installer = LockFile(kInstallerLock);
    if (rpm && installer) {
        return true;
    }
    UnLockFile(kRpmLock);
    UnLockFile(kInstallerLock);
    return false;
}

} // namespace Misc
