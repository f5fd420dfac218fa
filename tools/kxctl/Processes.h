#pragma once

#include <QDateTime>
#include <QString>
#include <QVector>

namespace kxctl {

struct Process {
    int pid;
    uint uid;
    QString program;
    QDateTime since;
    qint64 memory; ///< resident, in bytes
};

/// \return the process; with pid 0 when there is none
Process ReadProcess(int pid);

/// \return the processes of an application account, by pid; none of other users, root say, who run more than
///         an application
QVector<Process> ProcessesOf(uint uid);

} // namespace kxctl
