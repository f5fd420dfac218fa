#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

/// Makes a directory, with its parents, and sets owner and mode whatever the umask.
void MakeDirectory(const QString& path, uid_t uid = 0, gid_t gid = 0, mode_t mode = 0755);

/// Writes a file, and makes its parents; sets owner and mode whatever the umask.
void WriteFile(const QString& path, const QByteArray& content = QByteArray(), uid_t uid = 0, gid_t gid = 0,
               mode_t mode = 0644);

QByteArray ReadFile(const QString& path);

/// Copies a program of the system; the copy is executable for everyone.
void CopyProgram(const QString& program, const QString& path, uid_t uid = 0, gid_t gid = 0);

/// Makes a symbolic link that belongs to \a owner and its group.
void MakeLink(const QString& target, const QString& path, uid_t owner = 0);

/// Removes a file, a link or a tree, links not followed, without the code under test.
void RemoveAll(const QString& path);

/// \return owner and mode of what is at \a path, links not followed, such as "4002:4002 770"; empty when
///         there is nothing
QString OwnerAndMode(const QString& path);
