#include "SystemFixture.h"

namespace {

const QString kSyslogKey = "%platform.syslog.remoteIP:port";
const QString kHubIdKey = "systemconfig.hubID";
const QString kModeKey = "systemconfig.mode";
const QString kWakeKey = "%network.wifi.phy.wakeup_on_magic";

const QString kSyslogFile = "/etc/sysconfig/syslog";
const QString kHubIdFile = "/etc/platform/sys/hubID";
const QByteArray kNoTarget = "SYSLOGD_OPTIONS=\"\"\n";
const QStringList kRestarted{"syslog restart"};

const Files kPhy{{Answer("iw.d/dev"), "phy#0\n"}};
const QStringList kWakeEnabled{"iw dev", "iw phy0 wowlan enable magic-packet"};
const QStringList kWakeDisabled{"iw dev", "iw phy0 wowlan disable"};

QByteArray OptionsFor(const QByteArray& target)
{
    return "SYSLOGD_OPTIONS=\" -L -R " + target + "\"\n";
}

} // namespace

class RegistryWatchTest : public SystemFixture {
    Q_OBJECT

private slots:
    void Change_data()
    {
        const Table<QString, QString, QString, Case> table; // key, its value, that of the mode
        const auto row = [&](const char* name, const QString& key, const QString& value, const Files& before,
                             const QStringList& calls, const QStringList& log, const Files& after,
                             const QString& mode = "") {
            table(name, key, value, mode, {{}, before, {}, calls, log, after});
        };
        const QString failed = "3 valueChanged ";
        row("syslog", kSyslogKey, "192.168.1.10:514", {}, kRestarted, {},
            {{kSyslogFile, OptionsFor("192.168.1.10:514")}});
        row("syslog off", kSyslogKey, "", {{kSyslogFile, "a longer text than the new one is"}}, kRestarted,
            {}, {{kSyslogFile, kNoTarget}});
        row("syslog unreadable", kSyslogKey, "Error: no store", {}, {}, {}, {{kSyslogFile, {}}});
        row("syslog in other letters", kSyslogKey.toUpper(), "10.0.0.5:514", {}, {}, {}, {{kSyslogFile, {}}});
        row("syslog refused", kSyslogKey, "log\"host:514", {}, kRestarted,
            {failed + "!!!Attempt to set incorrect ip-address or port for logging to remote host:  "
                      "\"log\\\"host:514\""},
            {{kSyslogFile, kNoTarget}});
        row("no folder for syslog", kSyslogKey, "", {{"/etc/sysconfig", "-> /none"}}, {},
            {failed + "could not create directory /etc/sysconfig :  File exists"}, {});
        row("no file for syslog", kSyslogKey, "", {{kSyslogFile + "/file", ""}}, {},
            {failed + "could not open file '/etc/sysconfig/syslog', Is a directory"}, {});
        row("no room for syslog", kSyslogKey, "", {{kSyslogFile, "-> /dev/full"}}, {},
            {failed + "could not write to file '/etc/sysconfig/syslog', No space left on device"}, {});
        row("syslog does not restart", kSyslogKey, "", {{Answer("syslog.status"), "1"}}, kRestarted,
            {failed + "syslogd restarting returns error: *"}, {{kSyslogFile, kNoTarget}});

        row("hub id", "SYSTEMCONFIG.hubid", "Hub-7", {{kHubIdFile, "longer"}}, {}, {},
            {{kHubIdFile, "Hub-7"}}, "APPLY mode");
        row("hub id emptied", kHubIdKey, "", {{kHubIdFile, "old"}}, {}, {}, {{kHubIdFile, ""}}, "Apply Mode");
        for (const char* otherMode : {"Apply", ""}) {
            row("hub id in another mode", kHubIdKey, "7", {}, {}, {}, {{kHubIdFile, {}}}, otherMode);
        }
        row("hub id unreadable", kHubIdKey, "Error: x", {}, {}, {}, {{kHubIdFile, {}}}, "Apply Mode");
        row("no file for hub id", kHubIdKey, "7", {{kHubIdFile + "/file", ""}}, {},
            {failed + "could not open file '/etc/platform/sys/hubID', Is a directory"}, {}, "Apply Mode");

        row("wake", kWakeKey, "1", kPhy, kWakeEnabled, {}, {});
        row("do not wake", kWakeKey, "0", kPhy, kWakeDisabled, {}, {});
        row("no Wi-Fi", kWakeKey, "1", {}, {"iw dev"}, {"3 SetWifiWowlanParam wifi is missing"}, {});
        row("wake refused", kWakeKey, "true", kPhy, {},
            {failed + "Incorrect value for %network.wifi.phy.wakeup_on_magic key: true. The key will be "
                      "deleted. WoWlan feature status will be changed to default."},
            {});
        row("another key", kModeKey, "1", kPhy, {}, {}, {});
    }

    void Change()
    {
        const auto [key, value, mode, testCase] = FetchRow<QString, QString, QString, Case>();
        m_registry.setValue(kModeKey, mode);
        m_registry.setValue(key, value);
        Create(testCase.before);
        Tell(key, value);
        CompareEffects(testCase);
    }

    void Deletion_data()
    {
        const Table<QString, Case> row;
        const Files target{{kSyslogFile, OptionsFor("10.0.0.5:514")}};
        row("syslog", kSyslogKey, {{}, target, {}, kRestarted, {}, {{kSyslogFile, kNoTarget}}});
        row("syslog without options", kSyslogKey, {{}, {}, {}, {}, {}, {{"/etc/sysconfig", {}}}});
        row("syslog does not restart", kSyslogKey,
            {{},
             With(target, {{Answer("syslog.status"), "1"}}),
             {},
             kRestarted,
             {"3 keyDeleted syslogd restarting returns error: *"}});
        row("wake", kWakeKey, {{}, kPhy, {}, kWakeEnabled});
        row("hub id", kHubIdKey, {{}, With(kPhy, {{kHubIdFile, "7"}}), {}, {}, {}, {{kHubIdFile, "7"}}});
    }

    void Deletion()
    {
        const auto [key, testCase] = FetchRow<QString, Case>();
        Create(testCase.before);
        QVERIFY(QMetaObject::invokeMethod(&Server(), "keyDeleted", Q_ARG(QString, key)));
        CompareEffects(testCase);
    }

    void SyslogTargets_data()
    {
        const Table<bool> row;
        for (const char* target : {"0.0.0.0:0", "255.249.199.99:99999", "10.0.0.5:0514"}) {
            row(target, true);
        }
        for (const char* target : {"192.168.001.10:514", "256.1.1.1:514", "10.0.0.1", "10.0.0.1:",
                                   "10.0.0:514", "10.0.0.0.1:514", "localhost:514", "10.0.0.1:514 ",
                                   "10.0.0.1:514\n", "10.0.0.1:514\"; reboot", "10a0b0c1:514", " "}) {
            row(target, false);
        }
    }

    void SyslogTargets()
    {
        const auto [accepted] = FetchRow<bool>();
        const QByteArray target = QTest::currentDataTag();
        m_registry.setValue(kSyslogKey, target);
        Tell(kSyslogKey, target);
        Compare({{kSyslogFile, accepted ? OptionsFor(target) : kNoTarget}});
        QCOMPARE(m_registry.getValue(kSyslogKey).toString(), accepted ? target : QString());
        QVERIFY(m_registry.getValue(kSyslogKey).isValid());
    }

    void FollowsTheRegistry()
    {
        Create(kPhy);
        m_registry.setValue("network.wifi.presence", "1");
        m_registry.setValue(kModeKey, "Apply Mode");
        Server();
        QCOMPARE(TakeCalls(), kWakeEnabled);
        QStringList calls;
        const auto calledAll = [&](const QStringList& expected) {
            calls += TakeCalls();
            return calls == expected;
        };
        m_registry.setValue(kHubIdKey, "42");
        QTRY_VERIFY(ReadFile(kHubIdFile) == "42");
        m_registry.setValue(kSyslogKey, "nowhere");
        // The reset comes back as a change of its own.
        QTRY_VERIFY(calledAll(kRestarted + kRestarted));
        calls.clear();
        m_registry.setValue(kWakeKey, "0");
        QTRY_VERIFY(calledAll(kWakeDisabled));
        calls.clear();
        m_registry.setValue(kWakeKey, "on");
        QTRY_VERIFY(calledAll(kWakeEnabled));
        QVERIFY(!m_registry.getValue(kWakeKey).isValid());
    }

private:
    void Tell(const QString& key, const QString& value)
    {
        QVERIFY(
            QMetaObject::invokeMethod(&Server(), "valueChanged", Q_ARG(QString, key), Q_ARG(QString, value)));
    }
};

KX_TEST_MAIN(RegistryWatchTest)
#include "tst_registrywatch.moc"
