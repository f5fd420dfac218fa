#include "DaemonFixture.h"

#include <QtTest>

using kxtest::DaemonFixture;

namespace {

constexpr unsigned kAccount = 4002;

} // namespace

/// What is no fault of form, only far more than there should be.
class HardeningTest : public QObject {
    Q_OBJECT

private slots:
    void init() { kxtest::RemoveApplications(); }

    // The bus drops whoever sends it more than 32 MiB, and the daemon reboots the terminal then.
    void CrowdedConfigurationsDoNotCostTheBus()
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

    void CrowdedParametersAreRefusedEarly()
    {
        kxtest::InstallApplication("pay", kAccount, kAccount, {}, {kxtest::IdleProgram()});
        DaemonFixture daemon;
        QVERIFY(daemon.Start());
        const QString params = QString("a ").repeated(8 * 1024 * 1024);
        const QVariantMap result =
            daemon.StartRequest({{"application", "pay"}, {"binary", "idle"}, {"params", params}});
        QCOMPARE(result["errorCode"].toInt(), -1);
        QVERIFY(
            !daemon.WaitForRecord("Start: Failed to execute child (Argument list too long)").text.isEmpty());
        // Taken apart and copied, they take some 900 MiB.
        const qint64 peak = StatusOf(daemon.Pid()).value("VmHWM").split(' ').first().toLongLong();
        QVERIFY2(peak > 0 && peak < 600 * 1024, qPrintable(QString::number(peak)));
        QCOMPARE(daemon.Stop(), 0);
    }
};

QTEST_GUILESS_MAIN(HardeningTest)
#include "HardeningTest.moc"
