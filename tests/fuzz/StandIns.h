#pragma once

#include <QByteArray>
#include <QList>
#include <QVector>

#include <ctime>

/// What the daemon's code is told by the commands that it wants to run, and what it did with the clock. The
/// functions of the C library that would do it for real are replaced in all targets: no command is run, the
/// clock is not set and nothing waits. A command line that is not one of the daemon's own is a finding.
struct Machine {
    QByteArrayList outputs;     ///< of the commands that are read, one after the other; then empty
    QVector<int> statuses;      ///< exit statuses of the others; then 0
    QByteArrayList commands;    ///< command lines so far
    QVector<std::time_t> clock; ///< what the clock was set to
};

Machine& TheMachine();

/// Starts anew.
/// \param statuses  one for each character: success for a 0
void ResetMachine(const QByteArray& statuses = QByteArray(),
                  const QByteArrayList& outputs = QByteArrayList());
