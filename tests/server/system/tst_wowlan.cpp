#include "Terminal.h"

#include <Registry.h>

namespace {

const QString kWakeKey = "%network.wifi.phy.wakeup_on_magic";
const QString kPresenceKey = "network.wifi.presence";

const QString kDevices = "iw dev";
const QString kShow = "iw phy0 wowlan show";
const QString kEnable = "iw phy0 wowlan enable magic-packet";
const QString kDisable = "iw phy0 wowlan disable";

/// What the tool and the kernel answer.
Files Wifi(const QByteArray& listing, const QByteArray& subtype = "3\n")
{
    return {{Answer("iw.d/dev"), "phy#0\n\tInterface wlan0\n\t\ttype managed\n"},
            {Answer("iw.d/phy0_wowlan_show"), listing},
            {"/sys/kernel/secure/type", "1\n"},
            {"/sys/kernel/secure/subtype", subtype}};
}

Files Murata(const QByteArray& listing)
{
    return Wifi(listing, "4\n");
}

} // namespace

/// What the system server does when it is created.
class WowlanTest : public QObject {
    Q_OBJECT

private slots:
    void init() { m_terminal.Reset(); }
    void Alignment_data();
    void Alignment();

private:
    Terminal m_terminal;
};

void WowlanTest::Alignment_data()
{
    QTest::addColumn<QVariant>("presence");
    QTest::addColumn<QVariant>("wake");
    QTest::addColumn<Files>("files");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<QStringList>("log");

    const QByteArray on = "WoWLAN is enabled:\n * wake up on magic packet\n";
    const QByteArray off = "WoWLAN is disabled.\n";
    const QByteArray onDisconnect = "WoWLAN is enabled:\n * wake up on disconnect\n";
    const QByteArray onBoth = "WoWLAN is enabled:\n * wake up on disconnect or magic packet\n";
    const QByteArray onUnnamed = "WoWLAN is enabled:\n * wake up on a pattern\n";
    const QStringList none;
    const QVariant absent;
    const QString missing = "wifi is missing";

    QTest::newRow("presence unknown") << absent << QVariant("1") << Wifi(off) << none << none;
    QTest::newRow("no presence") << QVariant("0") << QVariant("1") << Wifi(off) << none << none;
    QTest::newRow("default") << QVariant("1") << absent << Wifi(on) << QStringList{kDevices, kEnable} << none;
    QTest::newRow("on as wanted") << QVariant("1") << QVariant("1") << Wifi(on)
                                  << QStringList{kDevices, kShow} << none;
    QTest::newRow("off as wanted") << QVariant("1") << QVariant("0") << Wifi(off)
                                   << QStringList{kDevices, kShow} << none;
    QTest::newRow("to be enabled") << QVariant("1") << QVariant("1") << Wifi(off)
                                   << QStringList{kDevices, kShow, kDevices, kEnable} << none;
    QTest::newRow("to be disabled") << QVariant("1") << QVariant("0") << Wifi(on)
                                    << QStringList{kDevices, kShow, kDevices, kDisable} << none;
    QTest::newRow("other trigger") << QVariant("1") << QVariant("1") << Wifi(onDisconnect)
                                   << QStringList{kDevices, kShow} << none;

    const QStringList strict{kDevices, kShow, kDevices, kShow};
    QTest::newRow("Murata: magic packet") << QVariant("1") << QVariant("1") << Murata(on) << strict << none;
    QTest::newRow("Murata: among others")
        << QVariant("1") << QVariant("1") << Murata(onBoth) << strict << none;
    QTest::newRow("Murata: no trigger named")
        << QVariant("1") << QVariant("1") << Murata(onUnnamed) << strict << none;
    QTest::newRow("Murata: off") << QVariant("1") << QVariant("0") << Murata(off)
                                 << QStringList{kDevices, kShow} << none;
    QTest::newRow("Murata: other trigger")
        << QVariant("1") << QVariant("1") << Murata(onDisconnect)
        << strict + QStringList{kDevices, kDisable, kDevices, kEnable} << none;

    QTest::newRow("no PHY") << QVariant("1") << QVariant("1") << Files() << QStringList{kDevices, kDevices}
                            << QStringList{"3 CheckWifiWowlanStatus " + missing,
                                           "3 SetWifiWowlanParam " + missing};
    Files second = Wifi(on);
    second[Answer("iw.d/dev")] = "phy#0\nphy#1\n";
    QTest::newRow("last PHY") << QVariant("1") << absent << second
                              << QStringList{kDevices, "iw phy1 wowlan enable magic-packet"} << none;
    Files failing = Wifi(on);
    failing[Answer("iw.d/phy0_wowlan_enable_magic-packet.status")] = "234";
    QTest::newRow("cannot be set") << QVariant("1") << absent << failing << QStringList{kDevices, kEnable}
                                   << QStringList{"3 SetWifiWowlanParam Wowlan feature couldn't be set"};
}

void WowlanTest::Alignment()
{
    QFETCH(QVariant, presence);
    QFETCH(QVariant, wake);
    QFETCH(Files, files);
    QFETCH(QStringList, calls);
    QFETCH(QStringList, log);
    Terminal::Create(files);
    com::veltrasys::Registry registry;
    for (const auto& [key, value] : {std::pair(kPresenceKey, presence), std::pair(kWakeKey, wake)}) {
        if (value.isValid()) {
            registry.setValue(key, value);
        }
    }
    m_terminal.Server();
    QCOMPARE(Terminal::TakeCalls(), calls);
    Terminal::CompareLog(log);
}

KX_SYSTEM_TEST_MAIN(WowlanTest)
#include "tst_wowlan.moc"
