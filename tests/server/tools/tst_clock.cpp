#include "ToolsFixture.h"

class ClockTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void ClockIsSetFromText_data();
    void ClockIsSetFromText();
    void TimeOffsetIsWritten_data();
    void TimeOffsetIsWritten();
    void UnwritableTimeOffsetIsReported_data();
    void UnwritableTimeOffsetIsReported();
    void UnreadableCurrentTimeIsReported();
    void EmptySourceIsNeitherStoredNorAnnounced();
};

void ClockTest::ClockIsSetFromText_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("result");
    QTest::addColumn<QByteArray>("set");

    const QByteArray none = "(missing)";
    QTest::newRow("date and time") << "UTC"
                                   << "2024-05-17 13:45:00" << 0 << QByteArray("1715953500\n");
    QTest::newRow("date keeps the time of day") << "UTC"
                                                << "2024-05-17" << 0 << QByteArray("1715984000\n");
    QTest::newRow("time keeps the date") << "UTC"
                                         << "12:30:00" << 0 << QByteArray("1699965000\n");
    QTest::newRow("time keeps the local date") << "Asia/Tokyo"
                                               << "12:30:00" << 0 << QByteArray("1700019000\n");
    QTest::newRow("summer time") << "Europe/Berlin"
                                 << "2024-07-01 12:00:00" << 0 << QByteArray("1719828000\n");
    QTest::newRow("winter time") << "Europe/Berlin"
                                 << "2024-01-15 12:00:00" << 0 << QByteArray("1705316400\n");
    QTest::newRow("30 February") << "UTC"
                                 << "2024-02-30" << 0 << QByteArray("1709331200\n");
    QTest::newRow("rest unread") << "UTC"
                                 << "2024-5-17 13:45:00x" << 0 << QByteArray("1715953500\n");
    QTest::newRow("ends at NUL") << "UTC" << QString::fromLatin1("12:30:00\0x", 10) << 0
                                 << QByteArray("1699965000\n");

    for (const int length : {0, 7, 9, 11, 18, 20, 21, 1000000}) {
        const QString text = QString("2024-05-17 13:45:00").leftJustified(length, '0', true);
        QTest::addRow("length %d", length) << "UTC" << text << -1 << none;
    }
    QTest::newRow("date taken for time") << "UTC"
                                         << "2024-5-7" << -1 << none;
    QTest::newRow("no such hour") << "UTC"
                                  << "25:00:00" << -1 << none;
    QTest::newRow("letters") << "UTC"
                             << "abcdefghij" << -1 << none;
    QTest::newRow("not ASCII at the end") << "UTC" << QString::fromUtf8("12:30:0é") << -1 << none;
    QTest::newRow("digits not ASCII") << "UTC" << QString::fromUtf8("１２:30:00") << -1 << none;
    QTest::newRow("second before the epoch") << "UTC"
                                             << "1969-12-31 23:59:59" << -1 << none;
    QTest::newRow("refused by the kernel") << "UTC"
                                           << "1960-01-01" << -2 << none;
    QTest::newRow("far future") << "UTC"
                                << "9999-12-31" << -2 << none;
}

void ClockTest::ClockIsSetFromText()
{
    QFETCH(QString, zone);
    QFETCH(QString, text);
    QFETCH(int, result);
    QFETCH(QByteArray, set);
    QVERIFY(QFile::link("/usr/share/zoneinfo/" + zone, kLink));

    QCOMPARE(m_server.SetSystemTime(text), result);

    const bool isDone = result == 0;
    QCOMPARE(Read(kClockRecord), set);
    QCOMPARE(QFile::exists(kOffset), isDone);
    QCOMPARE(m_registry.getValue(kKey), isDone ? QVariant("MANUAL") : QVariant());
    QCOMPARE(m_changed.size(), isDone ? 1 : 0);
    if (isDone) {
        const QDateTime expected = QDateTime::fromSecsSinceEpoch(set.trimmed().toLongLong(), Qt::UTC);
        QVERIFY(IsAbout(m_changed[0][0].toString(), expected.toString("yyyy-MM-dd HH:mm:ss")));
        QCOMPARE(m_changed[0].mid(1), QVariantList({zone, "MANUAL"}));
    }
    QCOMPARE(TakeLog().size(), 0);
}

void ClockTest::TimeOffsetIsWritten_data()
{
    QTest::addColumn<QByteArray>("hardwareClock");
    QTest::addColumn<QByteArray>("offset");

    QTest::newRow("behind") << QByteArray("1715953000\n") << QByteArray("500");
    QTest::newRow("ahead") << QByteArray("1715954000\n") << QByteArray("-500");
    QTest::newRow("equal") << QByteArray("1715953500\n") << QByteArray();
    QTest::newRow("no number") << QByteArray("x\n") << QByteArray("1715953500");
    QTest::newRow("missing") << QByteArray() << QByteArray("1715953500");
}

void ClockTest::TimeOffsetIsWritten()
{
    QFETCH(QByteArray, hardwareClock);
    QFETCH(QByteArray, offset);
    if (!hardwareClock.isEmpty()) {
        Write(kHardwareClock, hardwareClock);
    }
    Write(kOffset, "a longer text than any offset");

    QCOMPARE(m_server.SetSystemTime("2024-05-17 13:45:00"), 0);
    QCOMPARE(Read(kOffset), offset);
}

void ClockTest::UnwritableTimeOffsetIsReported_data()
{
    QTest::addColumn<bool>("isDirectory");
    QTest::newRow("cannot be opened") << true;
    QTest::newRow("device full") << false;
}

void ClockTest::UnwritableTimeOffsetIsReported()
{
    QFETCH(bool, isDirectory);
    QVERIFY(isDirectory ? QDir().mkdir(kOffset) : QFile::link("/dev/full", kOffset));

    QCOMPARE(m_server.SetSystemTime("2024-05-17 13:45:00"), -3);
    QCOMPARE(Read(kClockRecord), QByteArray("1715953500\n"));
    QCOMPARE(m_registry.getValue(kKey), QVariant());
    QCOMPARE(m_changed.size(), 0);
}

void ClockTest::UnreadableCurrentTimeIsReported()
{
    constexpr long long kYearBeyondInt = 1000000000000000000;
    FakeClockSet(kYearBeyondInt);
    QCOMPARE(m_server.SetSystemTime("2024-05-17 13:45:00"), -4);
    QCOMPARE(Read(kClockRecord), QByteArray("(missing)"));
}

void ClockTest::EmptySourceIsNeitherStoredNorAnnounced()
{
    QVERIFY(m_registry.setValue(kKey, "HUB"));
    QCOMPARE(m_server.SetSystemTime("2024-05-17", ""), 0);
    QCOMPARE(m_server.SetTimeZone("Europe/Berlin", ""), 0);
    QCOMPARE(m_server.SetTimeZone("", ""), 0);
    QCOMPARE(m_registry.getValue(kKey), QVariant("HUB"));
    QCOMPARE(m_changed.size(), 0);
}

KX_TOOLS_TEST_MAIN(ClockTest)

#include "tst_clock.moc"
