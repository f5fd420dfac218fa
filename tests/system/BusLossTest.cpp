#include "AccountingRecord.h"
#include "DaemonFixture.h"

#include <QFileInfo>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

using kxtest::ContentOf;
using kxtest::DaemonFixture;
using kxtest::PlatformCalls;

namespace {

constexpr auto kRpmLock = "/var/lib/rpm/.rpm.lock";
constexpr auto kInstallerLock = "/var/lib/installer/database/.rpm.lock";
const QString kAccounting = QStringLiteral("/tmp/wtmp");
const QString kDied = QStringLiteral("Seems that dbus-daemon died.");
const QString kAvoided = QStringLiteral("Updater is running => Avoid reboot");

void WriteEmpty(const char* path)
{
    QFile file(QString::fromLatin1(path));
    QVERIFY(file.open(QIODevice::WriteOnly));
}

/// A write lock over a whole file, as fcntl takes and shows it.
struct flock WholeFile()
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// \return the process that holds a lock on the file, not this one; 0 when none does
pid_t LockHolder(const char* path)
{
    struct flock lock = WholeFile();
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    fcntl(fd, F_GETLK, &lock);
    close(fd);
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

QVector<struct utmp> AccountingRecords()
{
    const QByteArray content = ContentOf(kAccounting);
    QVector<struct utmp> records(content.size() / kAccountingRecordSize);
    for (int record = 0; record < records.size(); ++record) {
        std::memcpy(&records[record], content.constData() + record * kAccountingRecordSize,
                    kAccountingRecordSize);
    }
    return records;
}

} // namespace

/// The bus dies under the daemon. Each test needs a bus of its own, so CTest runs each in its own private
/// root.
class BusLossTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void Reboots();
    void SparesAnUpdate();
    void SparesAForeignLock();

private:
    static void KillBus();
    void ExpectNoReboot();

    DaemonFixture m_daemon;
};

void BusLossTest::init()
{
    QVERIFY2(DaemonFixture::IsBusRunning(), "run one test in one private root");
    QVERIFY(m_daemon.Start());
}

void BusLossTest::KillBus()
{
    const pid_t bus = ContentOf("/run/dbus/pid").trimmed().toInt();
    QVERIFY(bus > 1);
    QCOMPARE(kill(bus, SIGKILL), 0);
}

void BusLossTest::Reboots()
{
    const auto before = time(nullptr);
    KillBus();
    KX_TRY_COMPARE(AccountingRecords().size(), 1);
    QElapsedTimer sinceRecord;
    sinceRecord.start();
    const struct utmp record = AccountingRecords().constFirst();
    QCOMPARE(int(record.ut_type), RUN_LVL);
    QCOMPARE(QByteArray(record.ut_line), QByteArray("~~"));
    QCOMPARE(QByteArray(record.ut_id, sizeof(record.ut_id)), QByteArray("~~\0\0", 4));
    QCOMPARE(QByteArray(record.ut_user), QByteArray("poweroff"));
    QByteArray bytes = ContentOf(kAccounting);
    const qint64 written = TakeAccountingTime(bytes);
    QVERIFY(before <= written && written <= time(nullptr));

    // No installation may begin in the seconds that are left.
    QCOMPARE(LockHolder(kRpmLock), m_daemon.Pid());
    QCOMPARE(LockHolder(kInstallerLock), m_daemon.Pid());
    const QString picture = "fbv -f -r /etc/platform/sys/maintenance.png";
    KX_TRY_VERIFY(PlatformCalls().contains(picture));
    QVERIFY(!PlatformCalls().contains("reboot"));
    KX_TRY_VERIFY(PlatformCalls().contains("reboot"));
    QVERIFY2(sinceRecord.elapsed() > 4500, "five seconds, less what it took to see the record");
    QVERIFY(PlatformCalls().indexOf(picture) < PlatformCalls().indexOf("reboot"));

    for (const QString& text :
         {kDied, QStringLiteral("Updater is not running => The unit must be restarted")}) {
        const auto entry = m_daemon.WaitForRecord(text);
        QCOMPARE(entry.text, text);
        QCOMPARE(entry.priority, QStringLiteral("emerg"));
        QCOMPARE(entry.file + ':' + entry.function, QStringLiteral("DbusMonitor:DBusDied"));
        QVERIFY(entry.line > 0);
    }
    QVERIFY(m_daemon.IsRunning());
    QCOMPARE(m_daemon.Stop(), 0);
}

void BusLossTest::SparesAnUpdate()
{
    WriteEmpty("/var/lib/installer/.update_started");
    KillBus();
    ExpectNoReboot();
    QVERIFY(!QFileInfo::exists(QString::fromLatin1(kRpmLock)));
    QVERIFY(!QFileInfo::exists(QString::fromLatin1(kInstallerLock)));
}

void BusLossTest::SparesAForeignLock()
{
    WriteEmpty(kRpmLock);
    const int fd = open(kRpmLock, O_RDWR | O_CLOEXEC);
    struct flock lock = WholeFile();
    QCOMPARE(fcntl(fd, F_SETLK, &lock), 0);
    KillBus();
    QCOMPARE(m_daemon.WaitForRecord("Failed to lock file").function, QStringLiteral("LockFile"));
    QCOMPARE(m_daemon.WaitForRecord(kAvoided).text, kAvoided);
    QCOMPARE(LockHolder(kInstallerLock), 0);
    ExpectNoReboot();
    close(fd);
}

void BusLossTest::ExpectNoReboot()
{
    QCOMPARE(m_daemon.WaitForRecord(kDied).priority, QStringLiteral("emerg"));
    QCOMPARE(m_daemon.WaitForRecord(kAvoided).text, kAvoided);
    QVERIFY(m_daemon.IsRunning());
    QCOMPARE(m_daemon.Stop(), 0);
    // A reboot would have begun with both of these.
    QVERIFY(!QFileInfo::exists(kAccounting));
    QVERIFY(PlatformCalls().filter("fbv").isEmpty());
}

QTEST_GUILESS_MAIN(BusLossTest)
#include "BusLossTest.moc"
