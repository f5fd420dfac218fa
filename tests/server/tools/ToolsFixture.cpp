#include "ToolsFixture.h"

#include "misc/Log.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

void Write(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

QByteArray Read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

void Remove(const QString& path)
{
    std::remove(QFile::encodeName(path).constData());
}

QString LinkTarget(const QString& path)
{
    std::array<char, 4096> target{};
    const ssize_t length = readlink(QFile::encodeName(path).constData(), target.data(), target.size());
    return length > 0 ? QString::fromUtf8(target.data(), static_cast<int>(length)) : QString();
}

QStringList Errors(const QString& function)
{
    QStringList texts;
    for (const LogRecord& record : TakeLog()) {
        const bool isExpected =
            record.priority == 3 && record.file == "Server" && record.function == function && record.line > 0;
        texts.append(isExpected ? record.text.mid(1) : "unexpected: " + record.function + record.text);
    }
    return texts;
}

bool IsAbout(const QString& utcTime, const QString& expected)
{
    constexpr int kSlack = 60;
    const QString format = "yyyy-MM-dd HH:mm:ss";
    const qint64 passed =
        QDateTime::fromString(expected, format).secsTo(QDateTime::fromString(utcTime, format));
    return utcTime.size() == format.size() && passed >= 0 && passed <= kSlack;
}

void ToolsFixture::initTestCase()
{
    const com::veltrasys::common::qt::LogInitializer handler;
}

void ToolsFixture::init()
{
    constexpr long long kStart = 1700000000;
    for (const QString& path : {kLink, kOffset, kHardwareClock, kClockRecord}) {
        Remove(path);
    }
    FakeClockSet(kStart);
    QVERIFY(m_registry.deleteKey(kKey));
    m_changed.clear();
    TakeLog();
}

void RequirePrivateRoot()
{
    if (access("/run/kx-private-root", F_OK) != 0) {
        std::fputs("This test sets the clock and writes below /etc: run it with scripts/sandbox.\n", stderr);
        std::exit(125);
    }
}
