#include "Terminal.h"

#include <sys/stat.h>

namespace {

const QString kFlags = "/etc/platform/usb_gadget/";
const QString kHubId = "/etc/platform/sys/hubID";
const QString kSerialLoaded = "libcomposite 1 2\nusb_f_acm 16384 1\nu_serial 20480 1 usb_f_acm\n";
const QString kEthernetLoaded = "u_ether 20480 2 usb_f_ecm,usb_f_rndis\n";

const QStringList kRestoring{"OnTerminate", "OnStarted"};
const QStringList kSerialStop{"g_serial",  "usb_f_obex", "usb_f_serial",
                              "usb_f_acm", "u_serial",   "ci_hdrc_imx"};
const QStringList kEthernetStop{"g_ether",          "usb_f_rndis", "usb_f_ecm",
                                "usb_f_ecm_subset", "u_ether",     "ci_hdrc_imx"};
const QString kSlowController = "modprobe ci_hdrc_imx otg_gadget_forced=y gadget_force_full_speed=y";
const QString kController = "modprobe ci_hdrc_imx otg_gadget_forced=y gadget_force_full_speed=n";
const QString kEthernetStart = "modprobe -a usb_f_rndis usb_f_ecm usb_f_ecm_subset u_ether g_ether";
const QString kSerialStart = "modprobe -a usb_f_obex usb_f_serial usb_f_acm u_serial";

QVariantMap Args(const QVariantMap& changes = {})
{
    QVariantMap args{{"mode", "ethernet"}, {"usbForceFullspeed", "false"}, {"dflt", "0"}, {"usbuid", false}};
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        args[change.key()] = *change;
    }
    return args;
}

QVariantMap Without(const char* key)
{
    QVariantMap args = Args();
    args.remove(key);
    return args;
}

/// The calls that unload modules; the message of each goes to the system log.
QStringList Unloads(const QStringList& modules)
{
    QStringList calls;
    for (const QString& module : modules) {
        calls << "rmmod " + module << "logger gone";
    }
    return calls;
}

/// The records of a reload, with \a extra ones (module unloading) before the controller is loaded.
QStringList Log(bool applications, const QStringList& extra, bool serial, const QString& outcome)
{
    const QString call = "6 DoConfigureUSBGadget ";
    const QString reload = "6 reloadGadgetUsbModules ";
    QStringList log{call + "USB configuration started",
                    call + "creating USB config related files and directories"};
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

const Files kNothingDone{{"/etc/platform/usb_gadget", {}}, {"/etc/platform/usbphy0", {}}, {kHubId, "old"}};

Case Refused(const QVariantMap& args, const QString& text)
{
    return {args,
            {{kHubId, "old"}},
            {{"return", 1}},
            {},
            {"6 DoConfigureUSBGadget USB configuration started", "3 DoConfigureUSBGadget " + text},
            kNothingDone};
}

} // namespace

class UsbGadgetTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        m_terminal.Reset();
        Terminal::Create({{Answer("rmmod.out"), "gone\n"}});
        QVERIFY(QDir::setCurrent("/"));
    }
    void Refuses_data();
    void Refuses();
    void Reloads_data();
    void Reloads();
    void StoresSettings_data();
    void StoresSettings();
    void FileFailures_data();
    void FileFailures();
    void CreatesWithTheNamedModes();
    void LooksUpTheUniqueIdFromTheWorkingDirectory();

private:
    Terminal m_terminal;
};

void UsbGadgetTest::Refuses_data()
{
    QTest::addColumn<Case>("testCase");

    for (const char* key : {"mode", "usbForceFullspeed", "dflt", "usbuid"}) {
        QTest::addRow("no %s", key) << Refused(Without(key), QString("'%1' argument is missing").arg(key));
    }
    QTest::newRow("mode") << Refused(Args({{"mode", "BOTH"}}), "invalid mode 'both'");
    QTest::newRow("speed") << Refused(Args({{"usbForceFullspeed", "Yes"}}),
                                      "invalid  usbForceFullspeed : 'yes'");
    QTest::newRow("ids") << Refused(Args({{"dflt", 2}}), "invalid legacy vendor and product ids : '2'");
    QTest::newRow("unique id") << Refused(Args({{"usbuid", QVariantList()}}),
                                          "invalid legacy serial number : ''");
    QTest::newRow("first in order counts") << Refused({{"mode", ""}}, "invalid mode ''");
}

void UsbGadgetTest::Refuses()
{
    QFETCH(Case, testCase);
    m_terminal.Run(96, testCase);
}

void UsbGadgetTest::Reloads_data()
{
    QTest::addColumn<Case>("testCase");

    const QStringList stopped{"OnTerminate", "lsmod"};
    QTest::newRow("nothing loaded") << Case{Args(),
                                            {{Answer("lsmod.out"), "libcomposite 1 2\n"}},
                                            kSuccess,
                                            stopped + QStringList{kController, kEthernetStart} + kRestoring,
                                            Log(true, {}, false, kCompleted),
                                            {}};
    QTest::newRow("ethernet to serial")
        << Case{Args({{"mode", "Serial"}, {"usbForceFullspeed", "TRUE"}}),
                {{Answer("lsmod.out"), kEthernetLoaded.toLatin1()}},
                kSuccess,
                stopped + Unloads(kEthernetStop) +
                    QStringList{kSlowController, kSerialStart,
                                "modprobe g_serial idVendor=0xABCD idProduct=0x30 sernum_str=12345678"} +
                    kRestoring,
                Log(true, {kStopping}, true, kCompleted),
                {}};
    QTest::newRow("serial with default ids and unique id")
        << Case{Args({{"mode", "serial"}, {"dflt", true}, {"usbuid", "1"}, {"lteConnected", true}}),
                {{Answer("lsmod.out"), kSerialLoaded.toLatin1()}},
                kSuccess,
                QStringList("lsmod") + Unloads(kSerialStop) +
                    QStringList{kController, kSerialStart, "modprobe g_serial gadget_uid=y"},
                Log(false, {kStopping}, true, kCompleted),
                {}};
    QTest::newRow("modules do not unload")
        << Case{Args({{"mode", "serial"}, {"lteConnected", true}, {"drmode", true}}),
                {{Answer("lsmod.out"), kEthernetLoaded.toLatin1()},
                 {Answer("rmmod.d/g_ether"), "gone\n"},
                 {Answer("rmmod.d/g_ether.status"), "2"},
                 {Answer("rmmod.d/u_ether"), "gone\n"},
                 {Answer("rmmod.d/u_ether.status"), "1"}},
                kSuccess,
                QStringList("lsmod") + Unloads(kEthernetStop) + Unloads(kSerialStop) +
                    QStringList{kController, kSerialStart,
                                "modprobe g_serial idVendor=0xABCD idProduct=0x30 sernum_str=12345678"},
                Log(false,
                    {kStopping, "3 stopUsbModules Failed to stop module g_ether. Continue.",
                     "3 stopUsbModules Failed to stop module u_ether. Continue.",
                     "6 reloadGadgetUsbModules stopping USB modules (ret == 3)"},
                    true, kCompleted),
                {}};
    QTest::newRow("a module does not load")
        << Case{Args({{"mode", "serial"}, {"lteConnected", "1"}}),
                {{Answer("modprobe.d/-a.status"), "5"}},
                {{"return", 1}},
                {"lsmod", kController, kSerialStart},
                Log(false, {}, false, "3 DoConfigureUSBGadget Couldn't reload usb gadget's modules  5"),
                {}};
    QStringList log = Log(true, {}, false, "3 DoConfigureUSBGadget Couldn't reload usb gadget's modules  4");
    log.removeOne("6 reloadGadgetUsbModules starting other USB modules");
    QTest::newRow("the controller does not load") << Case{Args({{"hubid", "UNCHANGED"}}),
                                                          {{Answer("modprobe.status"), "4"}},
                                                          {{"return", 1}},
                                                          stopped + QStringList(kController) + kRestoring,
                                                          log,
                                                          {}};
}

void UsbGadgetTest::Reloads()
{
    QFETCH(Case, testCase);
    // The start sequence stops the applications once more.
    const int started = testCase.calls.indexOf("OnStarted");
    QVERIFY(started < 0 || testCase.calls[started - 1] == "OnTerminate");
    m_terminal.Run(96, testCase);
}

void UsbGadgetTest::StoresSettings_data()
{
    QTest::addColumn<QVariantMap>("args");
    QTest::addColumn<Files>("before");
    QTest::addColumn<Files>("after");
    QTest::addColumn<bool>("stopsApplications");

    const Files all{{kFlags + "serial", ""},
                    {kFlags + "usb_force_fullspeed", ""},
                    {kFlags + "default_vid_pid", ""},
                    {kFlags + "usb_uid", ""}};
    Files none;
    for (const QString& path : all.keys()) {
        none[path] = QByteArray();
    }
    const QVariantMap every =
        Args({{"mode", "SERIAL"}, {"usbForceFullspeed", "True"}, {"dflt", 1}, {"usbuid", true}});
    QTest::newRow("flags set") << every << Files() << all << true;
    QTest::newRow("flags removed") << Args() << all << none << true;
    QTest::newRow("flags that stay") << every << Files{{kFlags + "serial", "kept"}}
                                     << Files{{kFlags + "serial", "kept"}} << true;
    QTest::newRow("hub id") << Args({{"hubid", "ABC"}}) << Files{{kHubId, "longer"}} << Files{{kHubId, "abc"}}
                            << false;
    QTest::newRow("hub id beyond ASCII")
        << Args({{"hubid", QString(QChar(0x00C4))}}) << Files() << Files{{kHubId, "\xC3\xA4"}} << false;
    QTest::newRow("long hub id") << Args({{"hubid", QString(100'000, 'A')}}) << Files()
                                 << Files{{kHubId, QByteArray(100'000, 'a')}} << false;
    QTest::newRow("hub id removed") << Args({{"hubid", ""}}) << Files{{kHubId, "old"}}
                                    << Files{{kHubId, QByteArray()}} << false;
    QTest::newRow("no hub id to remove")
        << Args({{"hubid", ""}}) << Files() << Files{{kHubId, QByteArray()}} << false;
    QTest::newRow("hub id unchanged")
        << Args({{"hubid", "UnChanged"}}) << Files{{kHubId, "old"}} << Files{{kHubId, "old"}} << true;
}

void UsbGadgetTest::StoresSettings()
{
    QFETCH(QVariantMap, args);
    QFETCH(Files, before);
    QFETCH(Files, after);
    QFETCH(bool, stopsApplications);
    Terminal::Create(before);
    QCOMPARE(m_terminal.Server().SystemCall(96, args), kSuccess);
    Terminal::Compare(after);
    QVERIFY(QDir("/etc/platform/usbphy0").exists());
    QCOMPARE(Terminal::TakeCalls().contains("OnTerminate"), stopsApplications);
}

void UsbGadgetTest::FileFailures_data()
{
    QTest::addColumn<QVariantMap>("args");
    QTest::addColumn<Files>("before");
    QTest::addColumn<QString>("text");

    QTest::newRow("directory") << Args() << Files{{"/etc/platform/usb_gadget", "-> /none"}}
                               << "could not create directory '/etc/platform/usb_gadget', File exists";
    QTest::newRow("open hub id") << Args({{"hubid", "1"}}) << Files{{kHubId + "/file", ""}}
                                 << "could not open file '/etc/platform/sys/hubID', Is a directory";
    QTest::newRow("write hub id")
        << Args({{"hubid", "1"}}) << Files{{kHubId, "-> /dev/full"}}
        << "could not write to file '/etc/platform/sys/hubID', No space left on device";
    QTest::newRow("delete hub id") << Args({{"hubid", ""}}) << Files{{kHubId + "/file", ""}}
                                   << "could not delete file '/etc/platform/sys/hubID', Is a directory";
    QTest::newRow("create flag")
        << Args({{"usbuid", "1"}}) << Files{{kFlags + "usb_uid", "-> /none/file"}}
        << "could not create file '/etc/platform/usb_gadget/usb_uid', No such file or "
           "directory";
    QTest::newRow("delete flag")
        << Args() << Files{{kFlags + "usb_uid/file", ""}}
        << "could not delete file '/etc/platform/usb_gadget/usb_uid', Is a directory";
}

void UsbGadgetTest::FileFailures()
{
    QFETCH(QVariantMap, args);
    QFETCH(Files, before);
    QFETCH(QString, text);
    Terminal::Create(before);
    QCOMPARE(m_terminal.Server().SystemCall(96, args), (QVariantMap{{"return", 1}}));
    QCOMPARE(TakeLogLines().last(), "3 DoConfigureUSBGadget " + text);
    QVERIFY(Terminal::TakeCalls().isEmpty());
}

void UsbGadgetTest::CreatesWithTheNamedModes()
{
    const auto modeOf = [](const QString& path) {
        struct stat status = {};
        stat(path.toLatin1(), &status);
        return static_cast<int>(status.st_mode & 07777);
    };
    const mode_t previous = umask(0);
    m_terminal.Server().SystemCall(96, Args({{"usbuid", "1"}, {"hubid", "1"}}));
    umask(previous);
    QCOMPARE(modeOf("/etc/platform/usb_gadget"), 0775);
    QCOMPARE(modeOf("/etc/platform/usbphy0"), 0775);
    QCOMPARE(modeOf(kFlags + "usb_uid"), 0660);
    QCOMPARE(modeOf(kHubId), 0664);
}

void UsbGadgetTest::LooksUpTheUniqueIdFromTheWorkingDirectory()
{
    QVERIFY(QDir::setCurrent("/tmp"));
    m_terminal.Server().SystemCall(96, Args({{"mode", "serial"}, {"dflt", "1"}, {"usbuid", "1"}}));
    QVERIFY(Terminal::TakeCalls().contains("modprobe g_serial sernum_str=12345678"));
}

KX_SYSTEM_TEST_MAIN(UsbGadgetTest)
#include "tst_usbgadget.moc"
