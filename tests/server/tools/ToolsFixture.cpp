#include "ToolsFixture.h"

#include <unistd.h>

#include <array>

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

void ToolsFixture::init()
{
    constexpr long long kStart = 1700000000;
    for (const QString& path : {kLink, kOffset, kHardwareClock, kClockRecord}) {
        RemoveAll(path);
    }
    FakeClockSet(kStart);
    QVERIFY(m_registry.deleteKey(kKey));
    m_changed.clear();
    Fixture::init();
}

void ToolsFixture::ExpectAnnounced(const QString& utcTime, const QString& zone, const QString& source)
{
    constexpr int kSlack = 60;
    const QString format = "yyyy-MM-dd HH:mm:ss";
    QCOMPARE(TakeLogLines(), QStringList());
    QCOMPARE(m_registry.getValue(kKey), QVariant(source));
    QCOMPARE(m_changed.size(), 1);
    QCOMPARE(m_changed[0].mid(1), QVariantList({zone, source}));
    const QString announced = m_changed[0][0].toString();
    const qint64 passed =
        QDateTime::fromString(utcTime, format).secsTo(QDateTime::fromString(announced, format));
    QVERIFY2(announced.size() == format.size() && passed >= 0 && passed <= kSlack, qPrintable(announced));
}

void ToolsFixture::ExpectNothingChanged()
{
    QCOMPARE(m_registry.getValue(kKey), QVariant());
    QCOMPARE(m_changed.size(), 0);
}
