#include "Fuzz.h"

#include <veltradebug.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

LastRecord g_lastRecord;

} // namespace

// In place of the platform's library: nothing of this is to reach a log.
void VLS_PrintLog(int priority, const char* /*category*/, const char* /*tag*/, const char* file,
                  const char* function, int line, const char* format, ...)
{
    Require(std::strcmp(format, "%s") == 0, "no text is used as a format");
    va_list arguments;
    va_start(arguments, format);
    const QByteArray text(va_arg(arguments, const char*));
    va_end(arguments);
    g_lastRecord = {priority, file, function, line, text};
}

const LastRecord& TheLastRecord()
{
    return g_lastRecord;
}

void Require(bool holds, const char* property)
{
    if (!holds) {
        std::fprintf(stderr, "A property does not hold: %s\n", property);
        std::abort();
    }
}

QString TextOf(const QByteArray& bytes)
{
    QString text = QString::fromUtf8(bytes);
    return text.remove(QChar::Null);
}

QByteArray TakeLine(QByteArray& input)
{
    const int end = input.indexOf('\n');
    QByteArray line = input.left(end);
    input = end < 0 ? QByteArray() : input.mid(end + 1);
    return line.replace('\r', '\n');
}

void PutFile(const char* path, const QByteArray& content)
{
    QFile file(QString::fromLatin1(path));
    QDir().mkpath(QFileInfo(file).path());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) || file.write(content) != content.size()) {
        std::fprintf(stderr, "cannot write %s\n", path);
        std::exit(EXIT_FAILURE);
    }
}

QByteArray FileContent(const char* path)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (access("/run/kx-private-root", F_OK) != 0) {
        std::fputs("This program changes the system: run it with scripts/fuzz.\n", stderr);
        std::exit(125);
    }
    static const QCoreApplication application(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    TryInput(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    return 0;
}
