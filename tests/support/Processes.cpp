#include "Processes.h"

#include "Files.h"
#include "Patience.h"

#include "misc/UniqueFd.h"

#include <QDir>
#include <QProcess>
#include <QString>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace {

QString ProcPath(pid_t pid, const char* entry)
{
    return QString("/proc/%1/%2").arg(pid).arg(QLatin1String(entry));
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

QList<pid_t> ProcessIds()
{
    QList<pid_t> ids;
    for (const QString& entry : QDir("/proc").entryList(QDir::Dirs)) {
        if (entry.toInt() > 0) {
            ids.append(entry.toInt());
        }
    }
    return ids;
}

QList<pid_t> Children()
{
    const QByteArray self = QByteArray::number(getpid());
    QList<pid_t> children;
    for (const pid_t pid : ProcessIds()) {
        if (StatusOf(pid).value("PPid") == self) {
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
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

Stray::Stray(uid_t uid, gid_t gid, bool ignoresTerm) : m_file(QString("/tmp/stray-%1-%2").arg(uid).arg(gid))
{
    RemoveAll(m_file);
    const QString script =
        QStringLiteral("(setpriv --reuid %1 --regid %2 --clear-groups env %3 sleep 1000 & echo $! >%4;"
                       " wait $!; echo $? >>%4) >/dev/null 2>&1 </dev/null &")
            .arg(QString::number(uid), QString::number(gid),
                 QLatin1String(ignoresTerm ? "--ignore-signal=TERM" : "--default-signal=TERM"), m_file);
    QProcess::execute("sh", {"-c", script});
    if (!kxtest::WaitFor(
            [this] { return EntriesOf(ReadFile(m_file).toInt(), "cmdline").value(0) == "sleep"; })) {
        qFatal("%s does not run", qPrintable(m_file));
    }
}

Stray::~Stray()
{
    if (EndedBy() == 0) {
        kill(ReadFile(m_file).toInt(), SIGKILL);
    }
}

int Stray::EndedBy() const
{
    constexpr int kSignalled = 128;
    const QList<QByteArray> lines = ReadFile(m_file).split('\n');
    return lines.value(1).isEmpty() ? 0 : lines[1].toInt() - kSignalled;
}
