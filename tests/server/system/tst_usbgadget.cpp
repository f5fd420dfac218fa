#include "SystemFixture.h"

#include <sys/stat.h>

namespace {

const QString kFlags = "/etc/platform/usb_gadget/";
const QString kHubId = "/etc/platform/sys/hubID";
const QByteArray kSerialLoaded = "libcomposite 1 2\nusb_f_acm 16384 1\nu_serial 20480 1 usb_f_acm\n";
const QByteArray kEthernetLoaded = "u_ether 20480 2 usb_f_ecm,usb_f_rndis\n";

const QStringList kRestoring{"OnTerminate", "OnStarted"};
const QStringList kSerialStop{"g_serial",  "usb_f_obex", "usb_f_serial",
                              "usb_f_acm", "u_serial",   "ci_hdrc_imx"};
const QStringList kEthernetStop{"g_ether",          "usb_f_rndis", "usb_f_ecm",
                                "usb_f_ecm_subset", "u_ether",     "ci_hdrc_imx"};
const QString kSlowController = "modprobe ci_hdrc_imx otg_gadget_forced=y gadget_force_full_speed=y";
const QString kController = "modprobe ci_hdrc_imx otg_gadget_forced=y gadget_force_full_speed=n";
const QString kEthernetStart = "modprobe -a usb_f_rndis usb_f_ecm usb_f_ecm_subset u_ether g_ether";
const QString kSerialStart = "modprobe -a usb_f_obex usb_f_serial usb_f_acm u_serial";

const QVariantMap kArgs{
    {"mode", "ethernet"}, {"usbForceFullspeed", "false"}, {"dflt", "0"}, {"usbuid", false}};

/// The calls that unload modules; the message of each goes to the system log.
QStringList Unloads(const QStringList& modules)
{
    QStringList calls;
    for (const QString& module : modules) {
        calls << "rmmod " + module << "logger gone";
    }
    return calls;
}

const QString kStarted = "6 DoConfigureUSBGadget USB configuration started";
const QString kCreating = "6 DoConfigureUSBGadget creating USB config related files and directories";
const QString kFailed = "3 DoConfigureUSBGadget ";

/// The records of a reload, with \a extra ones (module unloading) before the controller is loaded.
QStringList Log(bool applications, const QStringList& extra, bool serial, const QString& outcome)
{
    const QString call = "6 DoConfigureUSBGadget ";
    const QString reload = "6 reloadGadgetUsbModules ";
    QStringList log{kStarted, kCreating};
    if (applications) {
        log << call + "stopping apps server";
    }
    log << call + "beginning reload process of USB modules" << reload + "checking active USB modules" << extra
        << reload + "starting ci_hdrc_imx USB module" << reload + "starting other USB modules";
    if (serial) {
        log << reload + "starting g_serial USB module";
    }
    log << call + "USB modules reloaded, continuing";
    if (applications) {
        log << call + "starting apps server";
    }
    return log << outcome;
}

const QString kCompleted = "6 DoConfigureUSBGadget USB configuration completed successfully";
const QString kStopping = "6 reloadGadgetUsbModules stopping USB modules";

} // namespace

class UsbGadgetTest : public SystemFixture {
    Q_OBJECT

private slots:
    void init()
    {
        SystemFixture::init();
        Create({{Answer("rmmod.out"), "gone\n"}});
        QVERIFY(QDir::setCurrent("/"));
    }

    void Refuses_data()
    {
        const CaseTable table;
        const Files untouched{
            {"/etc/platform/usb_gadget", {}}, {"/etc/platform/usbphy0", {}}, {kHubId, "old"}};
        const auto row = [&](const QByteArray& name, const QVariantMap& args, const QString& text) {
            table(name, args, {{kHubId, "old"}}, {{"return", 1}}, {}, {kStarted, kFailed + text}, untouched);
        };
        for (const char* key : {"mode", "usbForceFullspeed", "dflt", "usbuid"}) {
            QVariantMap args = kArgs;
            args.remove(key);
            row(QByteArray("no ") + key, args, QString("'%1' argument is missing").arg(key));
        }
        row("mode", With(kArgs, {{"mode", "BOTH"}}), "invalid mode 'both'");
        row("speed", With(kArgs, {{"usbForceFullspeed", "Yes"}}), "invalid  usbForceFullspeed : 'yes'");
        row("ids", With(kArgs, {{"dflt", 2}}), "invalid legacy vendor and product ids : '2'");
        row("unique id", With(kArgs, {{"usbuid", QVariantList()}}), "invalid legacy serial number : ''");
        row("first in order counts", {{"mode", ""}}, "invalid mode ''");

        const auto failure = [&](const char* name, const QVariantMap& args, const Files& before,
                                 const QString& text) {
            table(name, With(kArgs, args), before, {{"return", 1}}, {},
                  {kStarted, kCreating, kFailed + "could not " + text});
        };
        const QString uniqueId = kFlags + "usb_uid";
        failure("directory", {}, {{"/etc/platform/usb_gadget", "-> /none"}},
                "create directory '/etc/platform/usb_gadget', File exists");
        failure("write hub id", {{"hubid", "1"}}, {{kHubId, "-> /dev/full"}},
                "write to file '/etc/platform/sys/hubID', No space left on device");
        failure("delete hub id", {{"hubid", ""}}, {{kHubId + "/file", ""}},
                "delete file '/etc/platform/sys/hubID', Is a directory");
        failure("create flag", {{"usbuid", "1"}}, {{uniqueId, "-> /none/file"}},
                "create file '/etc/platform/usb_gadget/usb_uid', No such file or directory");
        failure("delete flag", {}, {{uniqueId + "/file", ""}},
                "delete file '/etc/platform/usb_gadget/usb_uid', Is a directory");
    }

    void Refuses() { RunCase(96); }

    void Reloads_data()
    {
        const Table<QVariantMap, Files, QVariantMap, QStringList, QStringList> row;
        const QStringList stopped{"OnTerminate", "lsmod"};
        const QString byNumber = "modprobe g_serial idVendor=0xABCD idProduct=0x30 sernum_str=12345678";
        const QString noReload = "3 DoConfigureUSBGadget Couldn't reload usb gadget's modules  ";
        row("nothing loaded", {}, {{Answer("lsmod.out"), "libcomposite 1 2\n"}}, kSuccess,
            stopped + QStringList{kController, kEthernetStart} + kRestoring,
            Log(true, {}, false, kCompleted));
        row("ethernet to serial", {{"mode", "Serial"}, {"usbForceFullspeed", "TRUE"}},
            {{Answer("lsmod.out"), kEthernetLoaded}}, kSuccess,
            stopped + Unloads(kEthernetStop) + QStringList{kSlowController, kSerialStart, byNumber} +
                kRestoring,
            Log(true, {kStopping}, true, kCompleted));
        row("serial with default ids and unique id",
            {{"mode", "serial"}, {"dflt", true}, {"usbuid", "1"}, {"lteConnected", true}},
            {{Answer("lsmod.out"), kSerialLoaded}}, kSuccess,
            QStringList("lsmod") + Unloads(kSerialStop) +
                QStringList{kController, kSerialStart, "modprobe g_serial gadget_uid=y"},
            Log(false, {kStopping}, true, kCompleted));
        row("modules do not unload", {{"mode", "serial"}, {"lteConnected", true}, {"drmode", true}},
            {{Answer("lsmod.out"), kEthernetLoaded},
             {Answer("rmmod.d/g_ether"), "gone\n"},
             {Answer("rmmod.d/g_ether.status"), "2"},
             {Answer("rmmod.d/u_ether"), "gone\n"},
             {Answer("rmmod.d/u_ether.status"), "1"}},
            kSuccess,
            QStringList("lsmod") + Unloads(kEthernetStop) + Unloads(kSerialStop) +
                QStringList{kController, kSerialStart, byNumber},
            Log(false,
                {kStopping, "3 stopUsbModules Failed to stop module g_ether. Continue.",
                 "3 stopUsbModules Failed to stop module u_ether. Continue.",
                 "6 reloadGadgetUsbModules stopping USB modules (ret == 3)"},
                true, kCompleted));
        row("a module does not load", {{"mode", "serial"}, {"lteConnected", "1"}},
            {{Answer("modprobe.d/-a.status"), "5"}}, {{"return", 1}}, {"lsmod", kController, kSerialStart},
            Log(false, {}, false, noReload + '5'));
        QStringList log = Log(true, {}, false, noReload + '4');
        log.removeOne("6 reloadGadgetUsbModules starting other USB modules");
        row("the controller does not load", {{"hubid", "UNCHANGED"}}, {{Answer("modprobe.status"), "4"}},
            {{"return", 1}}, stopped + QStringList(kController) + kRestoring, log);
    }

    void Reloads()
    {
        const auto [args, before, result, calls, log] =
            FetchRow<QVariantMap, Files, QVariantMap, QStringList, QStringList>();
        Run(96, {With(kArgs, args), before, result, calls, log});
    }

    void StoresSettings_data()
    {
        const Table<QVariantMap, Files, Files, bool> row; // arguments, before, after, stops applications
        const Files all{{kFlags + "serial", ""},
                        {kFlags + "usb_force_fullspeed", ""},
                        {kFlags + "default_vid_pid", ""},
                        {kFlags + "usb_uid", ""}};
        Files none;
        for (const QString& path : all.keys()) {
            none[path] = QByteArray();
        }
        const QVariantMap every{
            {"mode", "SERIAL"}, {"usbForceFullspeed", "True"}, {"dflt", 1}, {"usbuid", true}};
        row("flags set", every, {}, all, true);
        row("flags removed", {}, all, none, true);
        row("flags that stay", every, {{kFlags + "serial", "kept"}}, {{kFlags + "serial", "kept"}}, true);
        row("hub id", {{"hubid", "ABC"}}, {{kHubId, "longer"}}, {{kHubId, "abc"}}, false);
        row("hub id beyond ASCII", {{"hubid", QString(QChar(0x00C4))}}, {}, {{kHubId, "\xC3\xA4"}}, false);
        row("long hub id", {{"hubid", QString(100000, 'A')}}, {}, {{kHubId, QByteArray(100000, 'a')}}, false);
        row("hub id removed", {{"hubid", ""}}, {{kHubId, "old"}}, {{kHubId, {}}}, false);
        row("no hub id to remove", {{"hubid", ""}}, {}, {{kHubId, {}}}, false);
        row("hub id unchanged", {{"hubid", "UnChanged"}}, {{kHubId, "old"}}, {{kHubId, "old"}}, true);
    }

    void StoresSettings()
    {
        const auto [args, before, after, stopsApplications] = FetchRow<QVariantMap, Files, Files, bool>();
        Create(before);
        QCOMPARE(Server().SystemCall(96, With(kArgs, args)), kSuccess);
        Compare(after);
        QVERIFY(QDir("/etc/platform/usbphy0").exists());
        QCOMPARE(TakeCalls().contains("OnTerminate"), stopsApplications);
    }

    void CreatesWithTheNamedModes()
    {
        const mode_t previous = umask(0);
        Server().SystemCall(96, With(kArgs, {{"usbuid", "1"}, {"hubid", "1"}}));
        umask(previous);
        QCOMPARE(OwnerAndMode("/etc/platform/usb_gadget"), QString("0:0 775"));
        QCOMPARE(OwnerAndMode("/etc/platform/usbphy0"), QString("0:0 775"));
        QCOMPARE(OwnerAndMode(kFlags + "usb_uid"), QString("0:0 660"));
        QCOMPARE(OwnerAndMode(kHubId), QString("0:0 664"));
    }

    void LooksUpTheUniqueIdFromTheWorkingDirectory()
    {
        QVERIFY(QDir::setCurrent("/tmp"));
        Server().SystemCall(96, With(kArgs, {{"mode", "serial"}, {"dflt", "1"}, {"usbuid", "1"}}));
        QVERIFY(TakeCalls().contains("modprobe g_serial sernum_str=12345678"));
    }
};

KX_TEST_MAIN(UsbGadgetTest)
#include "tst_usbgadget.moc"
