#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <sys/types.h>

/// \return all processes, zombies among them
QList<pid_t> ProcessIds();

/// \return those whose parent is this one
QList<pid_t> Children();

/// \return the fields of /proc/<pid>/status, without surrounding blanks; empty when there is no such process
QMap<QByteArray, QByteArray> StatusOf(pid_t pid);

/// \return one of the lists in /proc/<pid> that end each entry with a null: "cmdline" or "environ"
QList<QByteArray> EntriesOf(pid_t pid, const char* list);

/// Runs \a action in a forked child and waits. \return the exit status that it returned; -1 if a signal ended
/// it
int InChild(int (*action)(const char*), const char* argument);

/// Takes a write lock on a file in another process and holds it.
class ForeignLock {
public:
    explicit ForeignLock(const char* path);
    ~ForeignLock();
    ForeignLock(const ForeignLock&) = delete;
    ForeignLock& operator=(const ForeignLock&) = delete;

private:
    pid_t m_holder;
};

/// \return whether a process, this one or another, holds a lock on the file
bool IsLocked(const char* path);

/// A program of the system under any identity that is no child of this process, as something that an
/// application left behind.
class Stray {
public:
    /// Returns when it runs.
    Stray(uid_t uid, gid_t gid, bool ignoresTerm = false);
    ~Stray();
    Stray(const Stray&) = delete;
    Stray& operator=(const Stray&) = delete;

    /// \return the signal that ended it, 0 while it runs
    int EndedBy() const;

private:
    QString m_file; ///< with its process id, and its exit status once it has one
};
