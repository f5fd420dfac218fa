#include "AccountingRecord.h"
#include "DaemonFixture.h"

#include <csignal>

using kxtest::PlatformCalls;

namespace {

constexpr auto kRpmLock = "/var/lib/rpm/.rpm.lock";
constexpr auto kInstallerLock = "/var/lib/installer/database/.rpm.lock";
constexpr auto kAccounting = "/tmp/wtmp";

} // namespace

/// The bus dies under the daemon. Each test needs a bus of its own, so CTest runs each in its own private
/// root.
class BusLossTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY2(kxtest::DaemonFixture::IsBusRunning(), "run one test in one private root");
        QVERIFY(m_daemon.Start());
    }

    void Reboots()
    {
        KillBus();
        KX_TRY_COMPARE(QFileInfo(kAccounting).size(), kAccountingRecordSize);
        QElapsedTimer sinceRecord;
        sinceRecord.start();
        // No installation may begin in the seconds that are left.
        QVERIFY(IsLocked(kRpmLock) && IsLocked(kInstallerLock));
        const QString picture = "fbv -f -r /etc/platform/sys/maintenance.png";
        KX_TRY_COMPARE(PlatformCalls(), QStringList(picture));
        KX_TRY_COMPARE(PlatformCalls(), (QStringList{picture, "reboot"}));
        QVERIFY2(sinceRecord.elapsed() > 4500, "five seconds, less what it took to see the record");
        ExpectRecords("Updater is not running => The unit must be restarted");
    }

    void SparesAnUpdate()
    {
        WriteFile("/var/lib/installer/.update_started");
        KillBus();
        ExpectRecords("Updater is running => Avoid reboot");
        QVERIFY(!QFileInfo::exists(kRpmLock) && !QFileInfo::exists(kInstallerLock));
        // A reboot would have begun with both of these.
        QVERIFY(!QFileInfo::exists(kAccounting) && PlatformCalls().isEmpty());
    }

    void SparesAForeignLock()
    {
        const ForeignLock lock(kRpmLock);
        KillBus();
        ExpectRecords("Updater is running => Avoid reboot");
        QCOMPARE(m_daemon.WaitForRecord("Failed to lock file").function, QStringLiteral("LockFile"));
        QVERIFY(!IsLocked(kInstallerLock));
        QVERIFY(!QFileInfo::exists(kAccounting) && PlatformCalls().isEmpty());
    }

    void cleanup()
    {
        QVERIFY(m_daemon.IsRunning());
        QCOMPARE(m_daemon.Stop(), 0);
    }

private:
    static void KillBus() { QCOMPARE(kill(ReadFile("/run/dbus/pid").trimmed().toInt(), SIGKILL), 0); }

    void ExpectRecords(const QString& decision)
    {
        for (const QString& text : {QStringLiteral("Seems that dbus-daemon died."), decision}) {
            const auto record = m_daemon.WaitForRecord(text);
            QCOMPARE(record.text, text);
            QCOMPARE(record.priority + ' ' + record.file + ' ' + record.function,
                     QStringLiteral("emerg DbusMonitor DBusDied"));
            QVERIFY(record.line > 0);
        }
    }

    kxtest::DaemonFixture m_daemon;
};

QTEST_GUILESS_MAIN(BusLossTest)
#include "BusLossTest.moc"
