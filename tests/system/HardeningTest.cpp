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
    struct stat info = {};
    return lstat(path, &info) != 0 || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

void Plant(const char* target, const char* link)
{
    QCOMPARE(symlink(target, link), 0);
    QCOMPARE(lchown(link, kAccount, kAccount), 0);
}

} // namespace

/// What an application account or a careless start could turn against the system.
class HardeningTest : public QObject {
    Q_OBJECT

private slots:
    void init() { kxtest::RemoveApplications(); }
    void PlantedFolderOfTheWebTreeIsNotFollowed();
    void DevicesAreNotOpenedAsConfiguration();
    void NothingIsOpenToOthersWhateverTheUmask();
    void ProgramsGetTheStandardDescriptorsOnly();
    void CrowdedConfigurationsDoNotCostTheBus();
    void CrowdedParametersAreRefusedEarly();

private:
    QVariantMap SystemCall(int id, const QVariantMap& args);
};

QVariantMap HardeningTest::SystemCall(int id, const QVariantMap& args)
{
    SystemProxy system("com.veltrasys.kx.core", "/System", QDBusConnection::systemBus());
    QDBusPendingReply<QVariantMap> reply = system.SystemCall(id, args);
    reply.waitForFinished();
    return reply.value();
}

void HardeningTest::PlantedFolderOfTheWebTreeIsNotFollowed()
{
    kxtest::InstallApplication("pay", kAccount, kAccount);
    DaemonFixture daemon;
    QVERIFY(daemon.Start());
    QVERIFY(IsLink("/var/run/www/html/pay"));

    // All accounts may rename what is in the web tree.
    QVERIFY(QDir().mkpath("/etc/hooks"));
    QVERIFY(QDir().rename("/var/run/www/html", "/var/run/www/aside"));
    Plant("/etc/hooks", "/var/run/www/html");
    QCOMPARE(daemon.Enumerate().size(), 1);
    QVERIFY(!IsLink("/etc/hooks/pay"));
    QVERIFY(IsOpenToOthers("/var/run/www/cgi-bin"));
    QVERIFY(!IsOpenToOthers("/etc/hooks"));
    QVERIFY(!daemon.WaitForRecord("Failed to create symlink  \"html\"").text.isEmpty());
    QCOMPARE(daemon.Stop(), 0);
}

void HardeningTest::DevicesAreNotOpenedAsConfiguration()
{
    // A queue in the place of a device: opening either may have an effect.
    const QString home = kxtest::InstallApplication("pay", kAccount, kAccount);
    QCOMPARE(mkfifo("/tmp/device", 0666), 0);
    Plant("/tmp/device", qPrintable(home + "/app.conf"));
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

void HardeningTest::NothingIsOpenToOthersWhateverTheUmask()
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

void HardeningTest::ProgramsGetTheStandardDescriptorsOnly()
{
    const QByteArray list = "ls /proc/self/fd | xargs >/tmp/pay/descriptors.new\n"
                            "mv /tmp/pay/descriptors.new /tmp/pay/descriptors\n";
    kxtest::InstallApplication("pay", kAccount, kAccount, {}, {kxtest::Script("bin/list", list)});
    DaemonFixture daemon;
    QVERIFY(daemon.Start());
    QCOMPARE(daemon.StartRequest({{"application", "pay"}, {"binary", "list"}})["errorCode"].toInt(), 0);
    // The fourth is the listing's own.
    KX_TRY_COMPARE(kxtest::ContentOf("/tmp/pay/descriptors"), QByteArray("0 1 2 3\n"));
    QCOMPARE(daemon.Stop(), 0);
}

// The bus drops whoever sends it more than 32 MiB, and the daemon reboots the terminal then.
void HardeningTest::CrowdedConfigurationsDoNotCostTheBus()
{
    const QByteArray icon = "<desktop_item>html/f</desktop_item>\n";
    const QByteArray crowded =
        "<application>" + icon.repeated(1024 * 1024 / icon.size() - 1) + "</application>";
    const QStringList crowdedNames{"c1", "c2", "c3", "c4", "c5", "c6"};
    for (const QString& name : crowdedNames) {
        kxtest::InstallApplication(name, kAccount, kAccount, crowded, {{"html/f", "form"}});
    }
    kxtest::InstallApplication("pay", kAccount, kAccount, {}, {kxtest::IdleProgram()});
    DaemonFixture daemon;
    QVERIFY(daemon.Start());
    QStringList names;
    for (const QVariantMap& application : daemon.Enumerate()) {
        names += application["name"].toString();
    }
    QVERIFY2(names.size() > 1 && names.size() < 7 && names.contains("pay"), qPrintable(names.join(' ')));
    QVERIFY(!daemon.WaitForRecord("Too much in app.conf, left out of the reply:  \"c1\"").text.isEmpty());
    // What is left out is known all the same.
    const QString failure =
        daemon.StartRequest({{"application", "c1"}, {"binary", "x"}})["errorText"].toString();
    QCOMPARE(failure, QString("Binary directory /home/c1/bin doesn't exist"));
    QCOMPARE(daemon.Stop(), 0);
}

void HardeningTest::CrowdedParametersAreRefusedEarly()
{
    kxtest::InstallApplication("pay", kAccount, kAccount, {}, {kxtest::IdleProgram()});
    DaemonFixture daemon;
    QVERIFY(daemon.Start());
    const QString params = QString("a ").repeated(8 * 1024 * 1024);
    const QVariantMap result =
        daemon.StartRequest({{"application", "pay"}, {"binary", "idle"}, {"params", params}});
    QCOMPARE(result["errorCode"].toInt(), -1);
    QVERIFY(!daemon.WaitForRecord("Start: Failed to execute child (Argument list too long)").text.isEmpty());
    // Taken apart and copied, they take some 900 MiB.
    const QByteArray status = kxtest::ContentOf(QString("/proc/%1/status").arg(daemon.Pid()));
    const qint64 peak = status.mid(status.indexOf("VmHWM:") + 6).trimmed().split(' ').first().toLongLong();
    QVERIFY2(peak > 0 && peak < 600 * 1024, qPrintable(QString::number(peak)));
    QCOMPARE(daemon.Stop(), 0);
}

QTEST_GUILESS_MAIN(HardeningTest)
#include "HardeningTest.moc"
