#include "Processes.h"

#include "server/applications/processmanager/ProcessManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <unistd.h>

#include <algorithm>

namespace kxctl {
namespace {

QByteArray Content(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

Process ReadProcess(int pid)
{
    // Fields of /proc/PID/stat, counted from the one behind the name.
    constexpr int kStartTime = 19;
    constexpr int kResidentPages = 21;
    constexpr qint64 kMilliseconds = 1000;
    const QString directory = QStringLiteral("/proc/%1").arg(pid);
    const QByteArray stat = Content(directory + "/stat");
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() <= kResidentPages) {
        return {};
    }
    const double uptime = Content("/proc/uptime").split(' ').first().toDouble();
    const double start = fields.at(kStartTime).toDouble() / static_cast<double>(sysconf(_SC_CLK_TCK));
    const auto age = static_cast<qint64>((uptime - start) * kMilliseconds);
    return {pid, QFileInfo(directory).ownerId(), QString::fromUtf8(Content(directory + "/comm")).trimmed(),
            QDateTime::currentDateTime().addMSecs(-age),
            fields.at(kResidentPages).toLongLong() * sysconf(_SC_PAGESIZE)};
}

QVector<Process> ProcessesOf(uint uid)
{
    QVector<Process> processes;
    const bool isApplication = core::applications::IsValidAppID(uid, uid);
    for (const QFileInfo& entry : QDir("/proc").entryInfoList(QDir::Dirs)) {
        const int pid = entry.fileName().toInt();
        const bool isTheirs = isApplication && pid > 0 && entry.ownerId() == uid;
        const Process process = isTheirs ? ReadProcess(pid) : Process();
        if (process.pid != 0) {
            processes.append(process);
        }
    }
    std::sort(processes.begin(), processes.end(),
              [](const Process& first, const Process& second) { return first.pid < second.pid; });
    return processes;
}

} // namespace kxctl
