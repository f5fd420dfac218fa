#include "ToolsFixture.h"

class ClockTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void ClockIsSetFromText_data()
    {
        const Table<QString, QString, QByteArray> row; // zone, text, seconds
        row("date and time", "UTC", "2024-05-17 13:45:00", "1715953500\n");
        row("date keeps the time of day", "UTC", "2024-05-17", "1715984000\n");
        row("time keeps the date", "UTC", "12:30:00", "1699965000\n");
        row("time keeps the local date", "Asia/Tokyo", "12:30:00", "1700019000\n");
        row("summer time", "Europe/Berlin", "2024-07-01 12:00:00", "1719828000\n");
        row("winter time", "Europe/Berlin", "2024-01-15 12:00:00", "1705316400\n");
        row("30 February", "UTC", "2024-02-30", "1709331200\n");
        row("rest unread", "UTC", "2024-5-17 13:45:00x", "1715953500\n");
        row("ends at NUL", "UTC", QString::fromLatin1("12:30:00\0x", 10), "1699965000\n");
    }

    void ClockIsSetFromText()
    {
        const auto [zone, text, seconds] = FetchRow<QString, QString, QByteArray>();
        MakeLink("/usr/share/zoneinfo/" + zone, kLink);
        QCOMPARE(m_server.SetSystemTime(text), 0);
        QCOMPARE(ReadFile(kClockRecord), seconds);
        QVERIFY(QFile::exists(kOffset));
        const QDateTime time = QDateTime::fromSecsSinceEpoch(seconds.trimmed().toLongLong(), Qt::UTC);
        ExpectAnnounced(time.toString("yyyy-MM-dd HH:mm:ss"), zone, "MANUAL");
    }

    void BadTimeIsRefused_data()
    {
        const Table<QString, int> row;
        for (const int length : {0, 7, 9, 11, 18, 20, 21, 1000000}) {
            row("length " + QByteArray::number(length),
                QString("2024-05-17 13:45:00").leftJustified(length, '0', true), -1);
        }
        row("date taken for time", "2024-5-7", -1);
        row("no such hour", "25:00:00", -1);
        row("letters", "abcdefghij", -1);
        row("not ASCII at the end", QString::fromUtf8("12:30:0é"), -1);
        row("digits not ASCII", QString::fromUtf8("１２:30:00"), -1);
        row("second before the epoch", "1969-12-31 23:59:59", -1);
        row("refused by the kernel", "1960-01-01", -2);
        row("far future", "9999-12-31", -2);
    }

    void BadTimeIsRefused()
    {
        const auto [text, result] = FetchRow<QString, int>();
        QCOMPARE(m_server.SetSystemTime(text), result);
        QVERIFY(!QFile::exists(kClockRecord) && !QFile::exists(kOffset));
        ExpectNothingChanged();
        QCOMPARE(TakeLogLines(), QStringList());
    }

    void TimeOffsetIsWritten_data()
    {
        const Table<QByteArray, QByteArray> row; // hardware clock, offset
        row("behind", "1715953000\n", "500");
        row("ahead", "1715954000\n", "-500");
        row("equal", "1715953500\n", "");
        row("no number", "x\n", "1715953500");
        row("missing", {}, "1715953500");
    }

    void TimeOffsetIsWritten()
    {
        const auto [hardwareClock, offset] = FetchRow<QByteArray, QByteArray>();
        if (!hardwareClock.isEmpty()) {
            WriteFile(kHardwareClock, hardwareClock);
        }
        WriteFile(kOffset, "a longer text than any offset");
        QCOMPARE(m_server.SetSystemTime("2024-05-17 13:45:00"), 0);
        QCOMPARE(ReadFile(kOffset), offset);
    }

    void UnwritableTimeOffsetIsReported()
    {
        for (const bool isFull : {true, false}) {
            init();
            isFull ? MakeLink("/dev/full", kOffset) : MakeDirectory(kOffset);
            QCOMPARE(m_server.SetSystemTime("2024-05-17 13:45:00"), -3);
            QCOMPARE(ReadFile(kClockRecord), QByteArray("1715953500\n"));
            ExpectNothingChanged();
        }
    }

    void UnreadableCurrentTimeIsReported()
    {
        constexpr long long kYearBeyondInt = 1000000000000000000;
        FakeClockSet(kYearBeyondInt);
        QCOMPARE(m_server.SetSystemTime("2024-05-17 13:45:00"), -4);
        QVERIFY(!QFile::exists(kClockRecord));
    }

    void EmptySourceIsNeitherStoredNorAnnounced()
    {
        QCOMPARE(m_server.SetSystemTime("2024-05-17", ""), 0);
        QCOMPARE(m_server.SetTimeZone("Europe/Berlin", ""), 0);
        QCOMPARE(m_server.SetTimeZone("", ""), 0);
        ExpectNothingChanged();
    }
};

KX_TEST_MAIN(ClockTest)
#include "tst_clock.moc"
