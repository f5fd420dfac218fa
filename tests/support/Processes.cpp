#include "Processes.h"

#include "Files.h"

#include "misc/UniqueFd.h"

#include <QDir>
#include <QString>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace {

QString ProcPath(pid_t pid, const char* entry)
{
    return QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(entry));
}

bool Lock(const char* path)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock) == 0;
}

/// What a process without locks of its own is told; never released, it ends with the process.
int AskForLock(const char* path)
{
    return Lock(path) ? 0 : 1;
}

} // namespace

QList<pid_t> Children()
{
    const QByteArray self = QByteArray::number(getpid());
    QList<pid_t> children;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const pid_t pid = entry.toInt();
        if (pid > 0 && StatusOf(pid).value("PPid") == self) {
            children.append(pid);
        }
    }
    return children;
}

QMap<QByteArray, QByteArray> StatusOf(pid_t pid)
{
    QMap<QByteArray, QByteArray> fields;
    for (const QByteArray& line : ReadFile(ProcPath(pid, "status")).split('\n')) {
        const int colon = line.indexOf(':');
        fields.insert(line.left(colon), line.mid(colon + 1).simplified());
    }
    return fields;
}

QList<QByteArray> EntriesOf(pid_t pid, const char* list)
{
    QList<QByteArray> entries = ReadFile(ProcPath(pid, list)).split('\0');
    entries.removeLast();
    return entries;
}

int InChild(int (*action)(const char*), const char* argument)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(action(argument));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WEXITSTATUS(status);
}

ForeignLock::ForeignLock(const char* path)
{
    std::array<int, 2> ready{};
    if (pipe2(ready.data(), O_CLOEXEC) != 0) {
        qFatal("no pipe");
    }
    m_holder = fork();
    if (m_holder == 0) {
        const char locked = Lock(path) ? 1 : 0;
        if (write(ready[1], &locked, 1) == 1) {
            pause();
        }
        _exit(1);
    }
    const UniqueFd writeEnd(ready[1]);
    const UniqueFd readEnd(ready[0]);
    char locked = 0;
    if (read(readEnd.Get(), &locked, 1) != 1 || locked == 0) {
        qFatal("no lock on %s", path);
    }
}

ForeignLock::~ForeignLock()
{
    kill(m_holder, SIGKILL);
    waitpid(m_holder, nullptr, 0);
}

bool IsLocked(const char* path)
{
    return InChild(AskForLock, path) != 0;
}
