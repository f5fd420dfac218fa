#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

/// One call of VLS_PrintLog, which this program defines in place of the platform's library.
struct LogRecord {
    int priority = 0;
    QString category;
    QString tag;
    QString file;
    QString function;
    int line = 0;
    QString text;
};

/// \return the records since the last call, in order; those of forked children among them
QVector<LogRecord> TakeLog();

/// \return the same, each as "priority function text"
QStringList TakeLogLines();
