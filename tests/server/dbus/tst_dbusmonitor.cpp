#include "server/dbus/DbusMonitor.h"

#include "AccountingRecord.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>

namespace {

constexpr auto kMark = "/var/lib/installer/.update_started";
constexpr auto kRpmLock = "/var/lib/rpm/.rpm.lock";
constexpr auto kInstallerLock = "/var/lib/installer/database/.rpm.lock";
constexpr auto kRecords = "/tmp/wtmp";
constexpr auto kCalls = "/run/standins/calls";

/// Every byte counts: a reader of the file may take any of them.
QByteArray BytesOf(const utmp& record)
{
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

} // namespace

class DbusMonitorTest : public Fixture {
    Q_OBJECT

private slots:
    void init()
    {
        Fixture::init();
        for (const char* path : {kMark, kRpmLock, kInstallerLock, kRecords, kCalls}) {
            RemoveAll(path);
        }
    }

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

    void UpdateOrForeignLockPreventsReboot_data()
    {
        Columns<QByteArray>("updater");
        Row("mark", QByteArray(kMark));
        Row("first database", QByteArray(kRpmLock));
        Row("second database", QByteArray(kInstallerLock));
    }

    void UpdateOrForeignLockPreventsReboot()
    {
        QFETCH(QByteArray, updater);
        QStringList expected{"0 DBusDied Seems that dbus-daemon died.",
                             "0 DBusDied Updater is running => Avoid reboot"};
        std::unique_ptr<ForeignLock> lock;
        if (updater == kMark) {
            WriteFile(kMark);
        } else {
            lock = std::make_unique<ForeignLock>(updater.constData());
            expected.insert(1, "3 LockFile Failed to lock file  " + updater + " 11");
        }
        DBusMonitor monitor;
        monitor.DBusDied();
        QCOMPARE(TakeLogLines(), expected);
        QCOMPARE(QFileInfo::exists(kRpmLock) || QFileInfo::exists(kInstallerLock), updater != kMark);
        QVERIFY(!QFileInfo::exists(kCalls) && !QFileInfo::exists(kRecords));
    }

    void LossOfTheBusRebootsTheTerminal()
    {
        const DBusMonitor monitor;
        QVERIFY(QDBusConnection::systemBus().isConnected());
        QCOMPARE(kill(ReadFile("/run/dbus/pid").trimmed().toInt(), SIGKILL), 0);
        QElapsedTimer sinceLoss;
        sinceLoss.start();
        QTRY_COMPARE(ReadFile(kCalls), QByteArray("fbv -f -r /etc/platform/sys/maintenance.png\n"));
        QTRY_COMPARE(ReadFile(kRecords).size(), kAccountingRecordSize);
        QCOMPARE(TakeLogLines(),
                 QStringList({"0 DBusDied Seems that dbus-daemon died.",
                              "0 DBusDied Updater is not running => The unit must be restarted"}));
        QVERIFY(IsLocked(kRpmLock) && IsLocked(kInstallerLock));
        QTRY_VERIFY_WITH_TIMEOUT(ReadFile(kCalls).endsWith("\nreboot\n"), 15000);
        QVERIFY(sinceLoss.elapsed() >= 5000);
    }
};

KX_TEST_MAIN(DbusMonitorTest)
#include "tst_dbusmonitor.moc"
