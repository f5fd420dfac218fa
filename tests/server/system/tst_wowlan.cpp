#include "SystemFixture.h"

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

} // namespace

/// What the system server does when it is created.
class WowlanTest : public SystemFixture {
    Q_OBJECT

private slots:
    void Alignment_data()
    {
        const Table<QString, QString, Files, QStringList, QStringList> table; // a null text: no such key
        const auto wifi = [&](const char* name, const QString& wake, const Files& files,
                              const QStringList& calls,
                              const QStringList& log = {}) { table(name, "1", wake, files, calls, log); };
        const QByteArray on = "WoWLAN is enabled:\n * wake up on magic packet\n";
        const QByteArray off = "WoWLAN is disabled.\n";
        const QByteArray onDisconnect = "WoWLAN is enabled:\n * wake up on disconnect\n";
        const QByteArray onBoth = "WoWLAN is enabled:\n * wake up on disconnect or magic packet\n";
        const QByteArray onUnnamed = "WoWLAN is enabled:\n * wake up on a pattern\n";
        const QStringList looked{kDevices, kShow};
        const QStringList lookedTwice = looked + looked;
        const QString unset;

        table("presence unknown", unset, "1", Wifi(off), {}, {});
        table("no presence", "0", "1", Wifi(off), {}, {});
        wifi("default", unset, Wifi(on), {kDevices, kEnable});
        wifi("on as wanted", "1", Wifi(on), looked);
        wifi("off as wanted", "0", Wifi(off), looked);
        wifi("to be enabled", "1", Wifi(off), looked + QStringList{kDevices, kEnable});
        wifi("to be disabled", "0", Wifi(on), looked + QStringList{kDevices, kDisable});
        wifi("other trigger", "1", Wifi(onDisconnect), looked);

        const QByteArray murata = "4\n";
        wifi("Murata: magic packet", "1", Wifi(on, murata), lookedTwice);
        wifi("Murata: among others", "1", Wifi(onBoth, murata), lookedTwice);
        wifi("Murata: no trigger named", "1", Wifi(onUnnamed, murata), lookedTwice);
        wifi("Murata: off", "0", Wifi(off, murata), looked);
        wifi("Murata: other trigger", "1", Wifi(onDisconnect, murata),
             lookedTwice + QStringList{kDevices, kDisable, kDevices, kEnable});

        wifi("no PHY", "1", {}, {kDevices, kDevices},
             {"3 CheckWifiWowlanStatus wifi is missing", "3 SetWifiWowlanParam wifi is missing"});
        wifi("last PHY", unset, With(Wifi(on), {{Answer("iw.d/dev"), "phy#0\nphy#1\n"}}),
             {kDevices, "iw phy1 wowlan enable magic-packet"});
        wifi("cannot be set", unset,
             With(Wifi(on), {{Answer("iw.d/phy0_wowlan_enable_magic-packet.status"), "234"}}),
             {kDevices, kEnable}, {"3 SetWifiWowlanParam Wowlan feature couldn't be set"});
    }

    void Alignment()
    {
        const auto [presence, wake, files, calls, log] =
            FetchRow<QString, QString, Files, QStringList, QStringList>();
        Create(files);
        if (!presence.isNull()) {
            m_registry.setValue(kPresenceKey, presence);
        }
        if (!wake.isNull()) {
            m_registry.setValue(kWakeKey, wake);
        }
        Server();
        CompareEffects({{}, {}, {}, calls, log});
    }
};

KX_TEST_MAIN(WowlanTest)
#include "tst_wowlan.moc"
