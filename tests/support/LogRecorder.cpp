#include "LogRecorder.h"

#include <veltradebug.h>

#include <QByteArray>
#include <QDataStream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

/// The records lie in a file without a name that forked children append to as well.
int Store()
{
    static const int store = [] {
        const int fd = memfd_create("log", MFD_CLOEXEC);
        fcntl(fd, F_SETFL, O_APPEND);
        return fd;
    }();
    return store;
}

QDataStream& operator>>(QDataStream& stream, LogRecord& record)
{
    return stream >> record.priority >> record.category >> record.tag >> record.file >> record.function >>
           record.line >> record.text;
}

} // namespace

void VLS_PrintLog(int priority, const char* category, const char* tag, const char* file, const char* function,
                  int line, const char* format, ...)
{
    const int saved = errno;
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    QByteArray bytes;
    QDataStream(&bytes, QIODevice::WriteOnly)
        << priority << QString::fromLocal8Bit(category) << QString::fromLocal8Bit(tag)
        << QString::fromLocal8Bit(file) << QString::fromLocal8Bit(function) << line
        << QString::fromLocal8Bit(text, length);
    free(text);
    // Not write: a test may have it fail.
    const iovec part{bytes.data(), static_cast<size_t>(bytes.size())};
    if (writev(Store(), &part, 1) != bytes.size()) {
        std::perror("log recorder");
    }
    errno = saved;
}

QVector<LogRecord> TakeLog()
{
    static off_t taken = 0;
    QByteArray bytes(static_cast<int>(lseek(Store(), 0, SEEK_END) - taken), Qt::Uninitialized);
    taken += pread(Store(), bytes.data(), static_cast<size_t>(bytes.size()), taken);
    QDataStream stream(bytes);
    QVector<LogRecord> records;
    while (!stream.atEnd()) {
        records.append(LogRecord());
        stream >> records.last();
    }
    return records;
}

QStringList TakeLogLines()
{
    QStringList lines;
    for (const LogRecord& record : TakeLog()) {
        lines.append(QString::number(record.priority) + ' ' + record.function + record.text);
    }
    return lines;
}
