#include "Terminal.h"

#include <Registry.h>

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

/// \a files with those of a terminal that has Wi-Fi.
Files WithPhy(Files files)
{
    files[Answer("iw.d/dev")] = "phy#0\n";
    return files;
}

} // namespace

class RegistryWatchTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        m_terminal.Reset();
        m_other = std::make_unique<com::veltrasys::Registry>();
    }
    void Change_data();
    void Change();
    void Deletion_data();
    void Deletion();
    void SyslogTargets_data();
    void SyslogTargets();
    void FollowsTheRegistry();

private:
    Terminal m_terminal;
    std::unique_ptr<com::veltrasys::Registry> m_other; ///< another program's
};

void RegistryWatchTest::Change_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("mode");
    QTest::addColumn<Case>("testCase"); // without arguments and result

    QTest::newRow("syslog") << kSyslogKey << "192.168.1.10:514"
                            << ""
                            << Case{{}, {},
                                    {}, kRestarted,
                                    {}, {{kSyslogFile, "SYSLOGD_OPTIONS=\" -L -R 192.168.1.10:514\"\n"}}};
    QTest::newRow("syslog off") << kSyslogKey << ""
                                << "" << Case{{}, {{kSyslogFile, "a longer text than the new one is"}},
                                              {}, kRestarted,
                                              {}, {{kSyslogFile, kNoTarget}}};
    QTest::newRow("syslog unreadable") << kSyslogKey << "Error: no store"
                                       << "" << Case{{}, {}, {}, {}, {}, {{kSyslogFile, {}}}};
    QTest::newRow("syslog in other letters") << kSyslogKey.toUpper() << "10.0.0.5:514"
                                             << "" << Case{{}, {}, {}, {}, {}, {{kSyslogFile, {}}}};
    QTest::newRow("syslog refused")
        << kSyslogKey << "log\"host:514"
        << ""
        << Case{{},
                {},
                {},
                kRestarted,
                {"3 valueChanged !!!Attempt to set incorrect ip-address or port for logging to remote host:  "
                 "\"log\\\"host:514\""},
                {{kSyslogFile, kNoTarget}}};
    QTest::newRow("no folder for syslog")
        << kSyslogKey << ""
        << ""
        << Case{{},
                {{"/etc/sysconfig", "-> /none"}},
                {},
                {},
                {"3 valueChanged could not create directory /etc/sysconfig :  File exists"},
                {}};
    QTest::newRow("no file for syslog")
        << kSyslogKey << ""
        << ""
        << Case{{},
                {{kSyslogFile + "/file", ""}},
                {},
                {},
                {"3 valueChanged could not open file '/etc/sysconfig/syslog', Is a directory"},
                {}};
    QTest::newRow("no room for syslog")
        << kSyslogKey << ""
        << ""
        << Case{{},
                {{kSyslogFile, "-> /dev/full"}},
                {},
                {},
                {"3 valueChanged could not write to file '/etc/sysconfig/syslog', No space left on device"},
                {}};
    QTest::newRow("syslog does not restart") << kSyslogKey << ""
                                             << ""
                                             << Case{{},
                                                     {{Answer("syslog.status"), "1"}},
                                                     {},
                                                     kRestarted,
                                                     {"3 valueChanged syslogd restarting returns error: *"},
                                                     {{kSyslogFile, kNoTarget}}};

    QTest::newRow("hub id") << "SYSTEMCONFIG.hubid"
                            << "Hub-7"
                            << "APPLY mode"
                            << Case{{}, {{kHubIdFile, "longer"}}, {}, {}, {}, {{kHubIdFile, "Hub-7"}}};
    QTest::newRow("hub id emptied") << kHubIdKey << ""
                                    << "Apply Mode"
                                    << Case{{}, {{kHubIdFile, "old"}}, {}, {}, {}, {{kHubIdFile, ""}}};
    QTest::newRow("hub id in another mode") << kHubIdKey << "7"
                                            << "Apply" << Case{{}, {}, {}, {}, {}, {{kHubIdFile, {}}}};
    QTest::newRow("hub id without mode") << kHubIdKey << "7"
                                         << "" << Case{{}, {}, {}, {}, {}, {{kHubIdFile, {}}}};
    QTest::newRow("hub id unreadable") << kHubIdKey << "Error: x"
                                       << "Apply Mode" << Case{{}, {}, {}, {}, {}, {{kHubIdFile, {}}}};
    QTest::newRow("no file for hub id")
        << kHubIdKey << "7"
        << "Apply Mode"
        << Case{{},
                {{kHubIdFile + "/file", ""}},
                {},
                {},
                {"3 valueChanged could not open file '/etc/platform/sys/hubID', Is a directory"},
                {}};

    QTest::newRow("wake") << kWakeKey << "1"
                          << "" << Case{{}, kPhy, {}, kWakeEnabled, {}, {}};
    QTest::newRow("do not wake") << kWakeKey << "0"
                                 << "" << Case{{}, kPhy, {}, kWakeDisabled, {}, {}};
    QTest::newRow("no Wi-Fi") << kWakeKey << "1"
                              << ""
                              << Case{{}, {}, {}, {"iw dev"}, {"3 SetWifiWowlanParam wifi is missing"}, {}};
    QTest::newRow("wake refused") << kWakeKey << "true"
                                  << ""
                                  << Case{{},
                                          kPhy,
                                          {},
                                          {},
                                          {"3 valueChanged Incorrect value for "
                                           "%network.wifi.phy.wakeup_on_magic key: true. The key will be "
                                           "deleted. WoWlan feature status will be changed to default."},
                                          {}};
    QTest::newRow("another key") << "systemconfig.mode"
                                 << "1"
                                 << "" << Case{{}, kPhy, {}, {}, {}, {}};
}

void RegistryWatchTest::Change()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, mode);
    QFETCH(Case, testCase);
    m_other->setValue(kModeKey, mode);
    m_other->setValue(key, value);
    Terminal::Create(testCase.before);
    QVERIFY(QMetaObject::invokeMethod(&m_terminal.Server(), "valueChanged", Q_ARG(QString, key),
                                      Q_ARG(QString, value)));
    QCOMPARE(Terminal::TakeCalls(), testCase.calls);
    Terminal::CompareLog(testCase.log);
    Terminal::Compare(testCase.after);
}

void RegistryWatchTest::Deletion_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<Case>("testCase");

    const Files target{{kSyslogFile, "SYSLOGD_OPTIONS=\" -L -R 10.0.0.5:514\"\n"}};
    QTest::newRow("syslog") << kSyslogKey << Case{{}, target, {}, kRestarted, {}, {{kSyslogFile, kNoTarget}}};
    QTest::newRow("syslog without options")
        << kSyslogKey << Case{{}, {}, {}, {}, {}, {{"/etc/sysconfig", {}}}};
    Files failing = target;
    failing[Answer("syslog.status")] = "1";
    QTest::newRow("syslog does not restart")
        << kSyslogKey
        << Case{{}, failing, {}, kRestarted, {"3 keyDeleted syslogd restarting returns error: *"}, {}};
    QTest::newRow("wake") << kWakeKey << Case{{}, kPhy, {}, kWakeEnabled, {}, {}};
    QTest::newRow("hub id") << kHubIdKey
                            << Case{{}, WithPhy({{kHubIdFile, "7"}}), {}, {}, {}, {{kHubIdFile, "7"}}};
}

void RegistryWatchTest::Deletion()
{
    QFETCH(QString, key);
    QFETCH(Case, testCase);
    Terminal::Create(testCase.before);
    QVERIFY(QMetaObject::invokeMethod(&m_terminal.Server(), "keyDeleted", Q_ARG(QString, key)));
    QCOMPARE(Terminal::TakeCalls(), testCase.calls);
    Terminal::CompareLog(testCase.log);
    Terminal::Compare(testCase.after);
}

void RegistryWatchTest::SyslogTargets_data()
{
    QTest::addColumn<bool>("accepted");

    for (const char* target : {"0.0.0.0:0", "255.249.199.99:99999", "10.0.0.5:0514"}) {
        QTest::newRow(target) << true;
    }
    for (const char* target : {"192.168.001.10:514", "256.1.1.1:514", "10.0.0.1", "10.0.0.1:", "10.0.0:514",
                               "10.0.0.0.1:514", "localhost:514", "10.0.0.1:514 ", "10.0.0.1:514\n",
                               "10.0.0.1:514\"; reboot", "10a0b0c1:514", " "}) {
        QTest::newRow(target) << false;
    }
}

void RegistryWatchTest::SyslogTargets()
{
    QFETCH(bool, accepted);
    const QString target = QTest::currentDataTag();
    m_other->setValue(kSyslogKey, target);
    QMetaObject::invokeMethod(&m_terminal.Server(), "valueChanged", Q_ARG(QString, kSyslogKey),
                              Q_ARG(QString, target));
    Terminal::Compare(
        {{kSyslogFile, accepted ? "SYSLOGD_OPTIONS=\" -L -R " + target.toUtf8() + "\"\n" : kNoTarget}});
    QCOMPARE(m_other->getValue(kSyslogKey).toString(), accepted ? target : QString());
    QVERIFY(m_other->getValue(kSyslogKey).isValid());
}

void RegistryWatchTest::FollowsTheRegistry()
{
    Terminal::Create(kPhy);
    m_other->setValue("network.wifi.presence", "1");
    m_other->setValue(kModeKey, "Apply Mode");
    m_terminal.Server();
    QCOMPARE(Terminal::TakeCalls(), kWakeEnabled);
    QStringList calls;
    const auto calledAll = [&](const QStringList& expected) {
        calls += Terminal::TakeCalls();
        return calls == expected;
    };

    m_other->setValue(kHubIdKey, "42");
    QTRY_VERIFY(QFile::exists(kHubIdFile));
    m_other->setValue(kSyslogKey, "nowhere");
    // The reset comes back as a change of its own.
    QTRY_VERIFY(calledAll(kRestarted + kRestarted));
    QCOMPARE(m_other->getValue(kSyslogKey).toString(), QString());
    calls.clear();
    m_other->setValue(kWakeKey, "0");
    QTRY_VERIFY(calledAll(kWakeDisabled));
    calls.clear();
    m_other->setValue(kWakeKey, "on");
    QTRY_VERIFY(calledAll(kWakeEnabled));
    QVERIFY(!m_other->getValue(kWakeKey).isValid());
}

KX_SYSTEM_TEST_MAIN(RegistryWatchTest)
#include "tst_registrywatch.moc"
