#include "DaemonFixture.h"

#include "SystemProxy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::DaemonFixture;

namespace {

constexpr unsigned kAccount = 4002;

bool IsLink(const QString& path)
{
    return QFileInfo(path).isSymLink();
}

/// Whether an account but root may write to the file or directory, or it is missing.
bool IsOpenToOthers(const char* path)
{
    return (OwnerAndMode(path).section(' ', 1).toUInt(nullptr, 8) & 022) != 0 || OwnerAndMode(path).isEmpty();
}

} // namespace

/// What an application account or a careless start could turn against the system.
class HardeningTest : public QObject {
    Q_OBJECT

private slots:
    void init() { kxtest::RemoveApplications(); }

    void PlantedFolderOfTheWebTreeIsNotFollowed()
    {
        kxtest::InstallApplication("pay", kAccount, kAccount);
        DaemonFixture daemon;
        QVERIFY(daemon.Start());
        QVERIFY(IsLink("/var/run/www/html/pay"));

        // All accounts may rename what is in the web tree.
        QVERIFY(QDir().mkpath("/etc/hooks"));
        QVERIFY(QDir().rename("/var/run/www/html", "/var/run/www/aside"));
        MakeLink("/etc/hooks", "/var/run/www/html", kAccount);
        QCOMPARE(daemon.Enumerate().size(), 1);
        QVERIFY(!IsLink("/etc/hooks/pay"));
        QVERIFY(IsOpenToOthers("/var/run/www/cgi-bin"));
        QVERIFY(!IsOpenToOthers("/etc/hooks"));
        QVERIFY(!daemon.WaitForRecord("Failed to create symlink  \"html\"").text.isEmpty());
        QCOMPARE(daemon.Stop(), 0);
    }

    void DevicesAreNotOpenedAsConfiguration()
    {
        // A queue in the place of a device: opening either may have an effect.
        const QString home = kxtest::InstallApplication("pay", kAccount, kAccount);
        QCOMPARE(mkfifo("/tmp/device", 0666), 0);
        MakeLink("/tmp/device", home + "/app.conf", kAccount);
        const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        QVERIFY(inotify_add_watch(watch, "/tmp/device", IN_OPEN) >= 0);

        DaemonFixture daemon;
        QVERIFY(daemon.Start());
        QCOMPARE(daemon.Enumerate().size(), 1);
        inotify_event event = {};
        QCOMPARE(read(watch, &event, sizeof(event)), ssize_t(-1));
        close(watch);
        QCOMPARE(daemon.Stop(), 0);
    }

    void NothingIsOpenToOthersWhateverTheUmask()
    {
        const mode_t own = umask(0);
        DaemonFixture daemon;
        QVERIFY(daemon.Start());
        umask(own);
        QCOMPARE(SystemCall(102, {{"number", "2"}}), QVariantMap({{"return", 0}}));
        QCOMPARE(SystemCall(96, {{"mode", "serial"},
                                 {"usbForceFullspeed", "1"},
                                 {"dflt", "1"},
                                 {"usbuid", "1"},
                                 {"hubid", "hub"}}),
                 QVariantMap({{"return", 0}}));
        QCOMPARE(SystemCall(101, {}), QVariantMap({{"return", 0}}));
        for (const char* path : {"/etc/platform/settings/L2KernelsVersion", "/etc/platform/usb_gadget",
                                 "/etc/platform/usb_gadget/serial", "/etc/platform/usbphy0",
                                 "/etc/platform/sys/hubID", "/tmp/kxcore_poweroff"}) {
            QVERIFY2(!IsOpenToOthers(path), path);
        }
        // Those that all are to write to are, all the same.
        kxtest::InstallApplication("pay", kAccount, kAccount);
        QCOMPARE(daemon.Enumerate().size(), 1);
        QVERIFY(IsOpenToOthers("/var/run/www/html"));
        QCOMPARE(daemon.Stop(), 0);
    }

private:
    QVariantMap SystemCall(int id, const QVariantMap& args)
    {
        SystemProxy system("com.veltrasys.kx.core", "/System", QDBusConnection::systemBus());
        QDBusPendingReply<QVariantMap> reply = system.SystemCall(id, args);
        reply.waitForFinished();
        return reply.value();
    }
};

QTEST_GUILESS_MAIN(HardeningTest)
#include "HardeningTest.moc"
