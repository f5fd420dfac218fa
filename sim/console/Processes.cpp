#include "Processes.h"

#include "server/applications/processmanager/ProcessManager.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <pwd.h>
#include <sys/stat.h>

namespace {

QString NameOf(unsigned uid)
{
    const passwd* entry = getpwuid(uid);
    return entry == nullptr ? QString::number(uid) : QString::fromLocal8Bit(entry->pw_name);
}

QString CommandOf(const QString& directory)
{
    QFile file(directory + QStringLiteral("/cmdline"));
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromLocal8Bit(file.readAll().replace('\0', ' ')).trimmed();
}

} // namespace

bool Process::IsApplication() const
{
    return core::applications::IsValidAppID(uid, gid);
}

QList<Process> ListProcesses()
{
    QList<Process> processes;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool isPid = false;
        const int pid = entry.toInt(&isPid);
        const QString directory = QStringLiteral("/proc/") + entry;
        struct stat status {};
        if (!isPid || stat(directory.toLocal8Bit().constData(), &status) != 0) {
            continue;
        }
        const QString command = CommandOf(directory);
        if (!command.isEmpty()) {
            processes.append({pid, status.st_uid, status.st_gid, NameOf(status.st_uid), command});
        }
    }
    std::sort(processes.begin(), processes.end(),
              [](const Process& a, const Process& b) { return a.pid < b.pid; });
    return processes;
}
