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

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

using com::veltrasys::common::qt::qError;

namespace {

constexpr auto kSource = "/pkgs/kx-core/src/misc/Utils";

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr auto kUpdateMarker = "/var/lib/installer/.update_started";
constexpr auto kRpmLock = "/var/lib/rpm/.rpm.lock";
constexpr auto kInstallerLock = "/var/lib/installer/database/.rpm.lock";

/// Whether the link at \a path was made there by root: nobody else may add to its folder. A sticky one, like
/// /tmp, is no better than others, since a link of root's can be moved there out of any folder that is open
/// to all, such as the daemon's own links to what applications own.
bool IsTrustedLink(const QByteArray& path)
{
    struct stat link = {};
    struct stat folder = {};
    const QByteArray parent = QFile::encodeName(QFileInfo(QFile::decodeName(path)).path());
    if (lstat(path.constData(), &link) != 0 || stat(parent.constData(), &folder) != 0) {
        return false;
    }
    const bool othersMayWrite = (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return S_ISLNK(link.st_mode) && link.st_uid == 0 && folder.st_uid == 0 && !othersMayWrite;
}

/// A path as the system calls take it, without the slash at the end that would follow a final link.
QByteArray EncodedPath(const QString& path)
{
    return QFile::encodeName(QDir::cleanPath(path));
}

bool IsDirectoryOf(const QByteArray& name, unsigned uid, unsigned gid, unsigned mode)
{
    constexpr mode_t kPermissions = 07777;
    struct stat info = {};
    return lstat(name.constData(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == uid &&
           info.st_gid == gid && (info.st_mode & kPermissions) == mode;
}

bool IsLinkTo(const QByteArray& target, const QByteArray& name)
{
    std::array<char, PATH_MAX> text{};
    const ssize_t size = readlink(name.constData(), text.data(), text.size());
    return size == target.size() && std::equal(target.begin(), target.end(), text.begin());
}

/// Opens a directory that is about to change. An account that may write to the parent could have put a link
/// to a directory of the system there, so a final link is followed only if it is trusted.
/// \param name  without a slash at its end
UniqueFd OpenDirectory(const QByteArray& name)
{
    UniqueFd fd(open(name.constData(), kDirectoryFlags | O_NOFOLLOW));
    if (!fd) {
        const int error = errno;
        if (IsTrustedLink(name)) {
            fd.Reset(open(name.constData(), kDirectoryFlags));
        } else {
            errno = error;
        }
    }
    return fd;
}

/// \return what is in a directory at this moment; who adds to it all the time is not waited for
std::vector<QByteArray> NamesIn(DIR* dir)
{
    std::vector<QByteArray> names;
    while (const dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
            names.emplace_back(name);
        }
    }
    return names;
}

/// Empties a directory through its descriptor: applications own some of these trees, and none of them can
/// lead the walk elsewhere by swapping a folder for a link. What lies too deep stays: a tree can be as deep
/// as its maker likes, while each level takes a descriptor, memory and a piece of the stack.
void RemoveEntries(UniqueFd fd, int levels)
{
    if (levels == 0) {
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(fdopendir(fd.Get()), closedir);
    if (!dir) {
        return;
    }
    const int dirFd = fd.Release(); // closed with the stream
    for (const QByteArray& name : NamesIn(dir.get())) {
        if (unlinkat(dirFd, name.constData(), 0) == 0) {
            continue;
        }
        UniqueFd folder(openat(dirFd, name.constData(), kDirectoryFlags | O_NOFOLLOW));
        if (folder) {
            RemoveEntries(std::move(folder), levels - 1);
            unlinkat(dirFd, name.constData(), AT_REMOVEDIR);
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
    const QByteArray encodedTarget = QFile::encodeName(target);
    const QFileInfo link(linkPath);
    // A relative link, too, may lead to the target.
    if (IsLinkTo(encodedTarget, QFile::encodeName(linkPath)) || link.symLinkTarget() == target) {
        return true;
    }
    const UniqueFd folder = OpenDirectory(EncodedPath(link.path()));
    if (!folder) {
        return false;
    }
    const QByteArray name = QFile::encodeName(link.fileName());
    unlinkat(folder.Get(), name.constData(), 0);
    return symlinkat(encodedTarget.constData(), folder.Get(), name.constData()) == 0;
}

QString NormalizeFilePath(const QString& path, const QString& homeDir)
{
    if (path.isEmpty()) {
        return {};
    }
    if (path.startsWith(QLatin1String("./")) || path.startsWith(QLatin1String("~/"))) {
        return QDir::cleanPath(homeDir + QLatin1Char('/') + path.mid(2));
    }
    if (path.startsWith(QLatin1Char('/'))) {
        return QDir::cleanPath(path);
    }
    return QDir::cleanPath(homeDir + QLatin1Char('/') + path);
}

QString CanonicalPath(const QString& path)
{
    struct Free {
        void operator()(char* memory) const { std::free(memory); } // NOLINT(cppcoreguidelines-no-malloc)
    };
    if (path.contains(QChar::Null)) {
        return {};
    }
    const std::unique_ptr<char, Free> canonical(realpath(QFile::encodeName(path).constData(), nullptr));
    return QFile::decodeName(canonical.get());
}

bool StatCanonicalPath(const QString& path, struct stat& info)
{
    const QByteArray name = QFile::encodeName(path);
    const UniqueFd file(open(name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!file || fstat(file.Get(), &info) != 0) {
        return false;
    }
    // The kernel tells where the file really lies.
    if (!IsLinkTo(name, "/proc/self/fd/" + QByteArray::number(file.Get()))) {
        errno = ENOENT;
        return false;
    }
    return true;
}

bool DirExists(const QString& path)
{
    return QDir().exists(path);
}

bool RemoveFile(const QString& path)
{
    const QByteArray name = path.toLatin1();
    UniqueFd folder(open(name.constData(), kDirectoryFlags | O_NOFOLLOW));
    if (folder) {
        constexpr int kLevels = 500;
        RemoveEntries(std::move(folder), kLevels);
    }
    static_cast<void>(std::remove(name.constData()));
    return true;
}

bool CreateDirIfNeeded(const QString& path, unsigned uid, unsigned gid, unsigned mode)
{
    const QByteArray name = EncodedPath(path);
    if (IsDirectoryOf(name, uid, gid, mode)) {
        return true;
    }
    if (!QFileInfo(path).isDir() && !QDir().mkpath(path)) {
        return false;
    }
    const UniqueFd dir = OpenDirectory(name);
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
    const int rc = std::system(command); // NOLINT(concurrency-mt-unsafe): one thread runs commands
    g_ignore_sigChld = 0;

    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
    return static_cast<int>((static_cast<unsigned>(rc) >> 8U) & 0xFFU);
}

QString Excerpt(const QString& text)
{
    constexpr int kLength = 65'536;
    return text.left(kLength);
}

void Pause(std::chrono::milliseconds duration)
{
    constexpr long kNanosecondsPerSecond = 1'000'000'000;
    struct timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    deadline.tv_sec += seconds.count();
    deadline.tv_nsec += static_cast<long>(std::chrono::nanoseconds(duration - seconds).count());
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
        deadline.tv_nsec -= kNanosecondsPerSecond;
        ++deadline.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

bool IsUpdaterRunning()
{
    return access(kUpdateMarker, F_OK) == 0;
}

bool LockFile(const char* path)
{
    const mode_t previous = umask(022);
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    umask(previous);
    if (!fd) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to open file " << path << error;
        return false;
    }
    const bool locked = SetLock(fd.Get(), F_WRLCK);
    if (!locked) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to lock file " << path << error;
    }
    // Closing any descriptor of the file would release the process's lock on it.
    fd.Release();
    return locked;
}

bool UnLockFile(const char* path)
{
    UniqueFd fd(open(path, O_RDWR | O_CLOEXEC));
    if (!fd) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to open file " << path << error;
        return false;
    }
    const bool unlocked = SetLock(fd.Get(), F_UNLCK);
    if (!unlocked) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to unlock file " << path << error;
    }
    fd.Release();
    return unlocked;
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
