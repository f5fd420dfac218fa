#pragma once

#include <QString>

#include <chrono>
#include <csignal>

/// Paths, links and directories. Relative paths are taken against the working directory. Nothing throws.
namespace FileSystem {

/// Makes \a linkPath a symbolic link to \a target, replacing what is there. A link that already points to
/// \a target is left alone, time stamps included. The target need not exist. Where others may write to the
/// parent of the link's folder, a folder that is itself a link is refused.
/// \return whether the link exists with that target afterwards
bool CreateSymlink(const QString& target, const QString& linkPath);

/// Makes \a path absolute against \a homeDir ("./", "~/" and relative paths) and cleans it of ".", ".." and
/// doubled separators. Touches no file.
/// \return the absolute path; empty for an empty \a path
QString NormalizeFilePath(const QString& path, const QString& homeDir);

/// \return whether something of that name exists (a plain file counts)
bool DirExists(const QString& path);

/// Removes a file, a link (never what it points to) or a whole directory tree, of which what lies deeper than
/// 500 levels may stay.
/// \return always true: removal is best effort
bool RemoveFile(const QString& path);

/// Creates the directory with all its parents when it is missing, then sets owner and mode, also of one that
/// existed.
///
/// \param uid, gid  owner to set
/// \param mode      permission bits to set, whatever the umask
/// \return false when the directory cannot be created (nothing is logged), or when owner or mode cannot be
///         set ("Failed to create dir = " or "Failed to chmod = " and the errno, error level). Where others
///         may write to the parent, a directory that is a link counts as one whose owner cannot be set.
bool CreateDirIfNeeded(const QString& path, unsigned uid, unsigned gid, unsigned mode);

} // namespace FileSystem

namespace Misc {

/// Set while ExecShell waits for its command, so that the SIGCHLD handler does not take the exit status.
/// Written by ExecShell on the main thread, read by the handler.
extern volatile std::sig_atomic_t g_ignore_sigChld;

/// Runs a command line with /bin/sh and blocks until it ends; then reaps every other child that has ended.
/// \return the exit status, 0 to 255 (255 also when no shell could be started)
int ExecShell(const char* command);

/// Blocks for the whole \a duration, also when signals arrive meanwhile.
void Pause(std::chrono::milliseconds duration);

/// \return whether a software update is in progress
bool IsUpdaterRunning();

/// Takes a write lock on the whole of \a path without waiting; creates the file (0644) when it is missing.
/// The lock lasts until the process ends or UnLockFile runs.
/// \return false when the file cannot be opened ("Failed to open file ", path and errno) or another process
///         holds a lock ("Failed to lock file ", path and errno); both at error level
bool LockFile(const char* path);

/// Releases the lock that LockFile took on \a path.
/// \return false when the file cannot be opened ("Failed to open file ") or unlocked ("Failed to unlock
///         file "), each with path and errno at error level
bool UnLockFile(const char* path);

/// Locks both package databases, so that no installation can start.
/// \return true when both locks were taken; otherwise none is held afterwards
bool LockRPMFile();

} // namespace Misc
