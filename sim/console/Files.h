#pragma once

#include <QFile>
#include <QString>

// The text of the file; empty when it cannot be read.
inline QString Contents(const char* path)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}
