#include "server/applications/appconf/ApplicationConfig.h"

#include "Fixture.h"
#include "TestBus.h"

#include <QDBusReply>

using namespace core::configuration;

namespace {

QVariant MakeItem(const QString& form, int position)
{
    return QVariantMap{{"form", form}, {"iconPath", "i"}, {"iconPosition", position}, {"title", "100 %1"}};
}

/// A record in which every field but the group has a value of its own.
ApplicationConfig MakeRecord()
{
    ApplicationConfig config("pay");
    int number = 0;
    for (QString ApplicationConfig::*text :
         {&ApplicationConfig::m_resources, &ApplicationConfig::m_prompts, &ApplicationConfig::m_homeButton,
          &ApplicationConfig::m_cardRanges, &ApplicationConfig::m_BINRanges, &ApplicationConfig::m_whiteList,
          &ApplicationConfig::m_whiteListSignature, &ApplicationConfig::m_whiteListSignaturePath,
          &ApplicationConfig::m_showOnBoot, &ApplicationConfig::m_runOnBoot, &ApplicationConfig::m_groupName,
          &ApplicationConfig::m_userName, &ApplicationConfig::m_webResources,
          &ApplicationConfig::m_cacertPath}) {
        config.*text = QStringLiteral("text %1").arg(++number);
    }
    config.m_desktopItems = {DesktopItem(MakeItem("b", 12)), DesktopItem(MakeItem("a", -1))};
    config.m_configPages = {ConfigPage(MakeItem("c", 0))};
    config.m_cgiBinDefault = true;
    config.m_fastCgi = true;
    config.m_uid = 4002;
    return config;
}

QVariantMap WithoutCertificate(QVariantMap map)
{
    map.insert("cacertPath", QString());
    return map;
}

} // namespace

class ApplicationConfigTest : public Fixture {
    Q_OBJECT

private slots:
    void NewRecordKnowsOnlyItsName()
    {
        QVariantMap map = ApplicationConfig("p%1");
        QCOMPARE(map.take("name").toString(), QStringLiteral("p%1"));
        QCOMPARE(map.take("homeDir").toString(), QStringLiteral("/home/p%1"));
        QCOMPARE(map.take("tmpDir").toString(), QStringLiteral("/tmp/p%1"));
        QCOMPARE(map.take("uid"), QVariant(4294967295U));
        QCOMPARE(map.take("gid"), QVariant(4294967295U));
        QCOMPARE(map.take("cgiBinDefault"), QVariant(false));
        QCOMPARE(map.take("fastCgi"), QVariant(false));
        QCOMPARE(map.take("desktopItems"), QVariant(QVariantList()));
        QCOMPARE(map.take("configPages"), QVariant(QVariantList()));
        QCOMPARE(map.size(), 14);
        for (const QVariant& text : map) {
            QCOMPARE(text, QVariant(QString()));
        }
    }

    void CopiesDropTheCertificateAndMovesKeepIt()
    {
        ApplicationConfig record = MakeRecord();
        const QVariantMap original = record;
        QCOMPARE(original.value("desktopItems").toList().value(0), MakeItem("b", 12));
        ApplicationConfig assigned("other");
        assigned.m_cacertPath = "/home/other/ca";
        assigned = record;
        QCOMPARE(QVariantMap(ApplicationConfig(record)), WithoutCertificate(original));
        QCOMPARE(QVariantMap(assigned), WithoutCertificate(original));
        QCOMPARE(QVariantMap(record), original);

        ApplicationConfig moved(std::move(record));
        QCOMPARE(QVariantMap(moved), original);
        assigned = std::move(moved);
        QCOMPARE(QVariantMap(assigned), original);
    }

    void RecordReturnsFromTheBus()
    {
        OpenBus();
        Echo echo;
        const QDBusReply<QVariantMap> reply = echo.Call(QVariantMap(MakeRecord()));
        QVERIFY2(reply.isValid(), qPrintable(reply.error().message()));
        const ApplicationConfig received(reply.value());
        QCOMPARE(QVariantMap(received), WithoutCertificate(MakeRecord()));
        QCOMPARE(received.m_gid, ApplicationConfig::kUnknownId);
    }

    void HostileMapsGiveDefaults()
    {
        const ApplicationConfig empty{QVariantMap()};
        QCOMPARE(empty.m_uid + empty.m_gid, 0U);
        const QVariantMap wrong{{"uid", "abc"},
                                {"gid", QVariantList()},
                                {"name", 5},
                                {"fastCgi", "yes"},
                                {"homeDir", QVariantMap()},
                                {"desktopItems", "text"},
                                {"configPages", QVariantList{QVariantMap{{"form", "f"}}}}};
        OpenBus();
        Echo echo;
        for (const QVariantMap& map : {wrong, QDBusReply<QVariantMap>(echo.Call(wrong)).value()}) {
            const ApplicationConfig config(map);
            QCOMPARE(config.m_uid + config.m_gid, 0U);
            QCOMPARE(config.m_name, QStringLiteral("5"));
            QCOMPARE(config.m_fastCgi, true);
            QCOMPARE(config.m_homeDir, QString());
            QCOMPARE(config.m_desktopItems.size(), 0);
        }
        QCOMPARE(ApplicationConfig(wrong).m_configPages.size(), 0); // not from the bus
        const BaseItem item(QVariant(QVariantMap{{"form", "f"}}));
        QCOMPARE(item.m_form + QString::number(item.m_iconPosition), QStringLiteral("f0"));
    }
};

KX_TEST_MAIN(ApplicationConfigTest)
#include "tst_applicationconfig.moc"
