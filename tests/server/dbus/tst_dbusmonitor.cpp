#include "server/dbus/DbusMonitor.h"

#include "AccountingRecord.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

namespace {

constexpr auto kRecords = "/tmp/wtmp";

/// Every byte counts: a reader of the file may take any of them.
QByteArray BytesOf(const utmp& record)
{
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

} // namespace

/// What is left when the bus is gone is tested with the daemon itself, see BusLossTest.
class DbusMonitorTest : public Fixture {
    Q_OBJECT

private slots:
    void MonitorWithoutBusSaysSo()
    {
        // Only a process that never had a connection is refused.
        const auto createMonitor = [](const char* address) {
            qputenv("DBUS_SYSTEM_BUS_ADDRESS", address);
            const DBusMonitor monitor;
            return 0;
        };
        QCOMPARE(InChild(createMonitor, "unix:path=/none"), 0);
        QCOMPARE(TakeLogLines(), QStringList("3 DBusMonitor Failed to create connection for dbus monitor"));
    }

    void AppendsRecords()
    {
        utmp expected = {};
        expected.ut_type = RUN_LVL;
        std::memcpy(expected.ut_line, "~~", 2);
        std::memcpy(expected.ut_id, "~~", 2);
        std::memcpy(expected.ut_user, "poweroff", 8);
        const auto before = std::time(nullptr);
        DBusMonitor::SavePoweroffRecord();
        DBusMonitor::SavePoweroffRecord();
        QCOMPARE(OwnerAndMode(kRecords), QStringLiteral("0:0 644"));
        QByteArray content = ReadFile(kRecords);
        QCOMPARE(content.size(), 2 * kAccountingRecordSize);
        for (int record = 0; record < 2; ++record) {
            QByteArray written = content.left(kAccountingRecordSize);
            content.remove(0, kAccountingRecordSize);
            const qint64 time = TakeAccountingTime(written);
            QVERIFY(before <= time && time <= std::time(nullptr));
            QCOMPARE(written, BytesOf(expected).left(kAccountingRecordSize));
        }
    }

    void RecordGoesOnlyIntoAFile()
    {
        RemoveAll(kRecords);
        WriteFile("/tmp/system", "content");
        MakeLink("/tmp/system", kRecords, 4002);
        DBusMonitor::SavePoweroffRecord();
        QCOMPARE(ReadFile("/tmp/system"), QByteArray("content"));
        RemoveAll(kRecords);
        QCOMPARE(mkfifo(kRecords, 0666), 0);
        alarm(30); // ends the program should the FIFO block it
        DBusMonitor::SavePoweroffRecord();
        alarm(0);
    }
};

KX_TEST_MAIN(DbusMonitorTest)
#include "tst_dbusmonitor.moc"
