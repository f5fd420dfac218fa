#include "ToolsAdaptor.h"
#include "ToolsFixture.h"

class TimeInfoTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void SourcesHavePrecedence_data();
    void SourcesHavePrecedence();
    void TimeInfoIsSetTogether_data();
    void TimeInfoIsSetTogether();
    void TimeInfoThatCannotBeSetIsReported_data();
    void TimeInfoThatCannotBeSetIsReported();
    void ResetLetsAnySourceSetTheTime();
    void EveryMethodAnswersThroughTheAdaptor();
};

void TimeInfoTest::SourcesHavePrecedence_data()
{
    QTest::addColumn<QString>("current");
    QTest::addColumn<QStringList>("allowed");

    const QStringList all{"HOST", "MANUAL", "HUB", "UNKNOWN"};
    QTest::newRow("HOST") << "HOST" << QStringList{"HOST"};
    QTest::newRow("MANUAL") << "MANUAL" << QStringList{"HOST", "MANUAL"};
    QTest::newRow("HUB") << "HUB" << QStringList{"HOST", "MANUAL", "HUB"};
    QTest::newRow("UNKNOWN") << "UNKNOWN" << all;
    QTest::newRow("unset") << QString() << all;
    QTest::newRow("not a source") << "host" << all;
}

void TimeInfoTest::SourcesHavePrecedence()
{
    QFETCH(QString, current);
    QFETCH(QStringList, allowed);
    for (const QString source : {"HOST", "MANUAL", "HUB", "UNKNOWN"}) {
        init();
        if (!current.isNull()) {
            QVERIFY(m_registry.setValue(kKey, current));
        }
        const bool isAllowed = allowed.contains(source);
        const QString error =
            "\"Unable to set time info: '" + source + "' cannot overwrite time set by '" + current + "'\"";

        QCOMPARE(m_server.SetTimeInfo("", "UTC", source), isAllowed ? 0 : 1);

        QCOMPARE(Errors("SetTimeInfo"), isAllowed ? QStringList() : QStringList(error));
        QCOMPARE(m_registry.getValue(kKey).toString(), isAllowed ? source : current);
        QCOMPARE(m_changed.size(), isAllowed ? 1 : 0);
        QCOMPARE(QFileInfo(kLink).isSymLink(), isAllowed);
    }
}

void TimeInfoTest::TimeInfoIsSetTogether_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("set");
    QTest::addColumn<QString>("utcTime");
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("source");

    const QByteArray none = "(missing)";
    const QByteArray tenUtc = "1715940000\n";
    const QString start = "2023-11-14 22:13:20";
    const QString set = "2024-05-17 10:00:00";
    QTest::newRow("all") << QStringList{set, "Europe/Berlin", "HOST"} << tenUtc << set << kBerlin << "HOST";
    QTest::newRow("time") << QStringList{set, "", "HUB"} << tenUtc << set << ""
                          << "HUB";
    QTest::newRow("zone") << QStringList{"", "Europe/Berlin", "HUB"} << none << start << kBerlin << "HUB";
    QTest::newRow("source") << QStringList{"", "", "MANUAL"} << none << start << ""
                            << "MANUAL";
    QTest::newRow("nothing") << QStringList{"", "", ""} << none << start << ""
                             << "UNKNOWN";
}

void TimeInfoTest::TimeInfoIsSetTogether()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, set);
    QFETCH(QString, utcTime);
    QFETCH(QString, target);
    QFETCH(QString, source);
    QVERIFY(QFile::link("/usr/share/zoneinfo/Asia/Tokyo", kLink));

    QCOMPARE(m_server.SetTimeInfo(arguments[0], arguments[1], arguments[2]), 0);

    QCOMPARE(Read(kClockRecord), set);
    QCOMPARE(LinkTarget(kLink), target);
    QCOMPARE(m_registry.getValue(kKey), QVariant(source));
    QCOMPARE(m_changed.size(), 1);
    QVERIFY(IsAbout(m_changed[0][0].toString(), utcTime));
    QCOMPARE(m_changed[0].mid(1), QVariantList({arguments[1], source}));
    QCOMPARE(TakeLog().size(), 0);
}

void TimeInfoTest::TimeInfoThatCannotBeSetIsReported_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");

    const QString allowed = ", allowed values: HOST, MANUAL, HUB, UNKNOWN\"";
    QTest::newRow("zone without source") << QStringList{"", "UTC", ""} << "\"Invalid infoSource ''" + allowed;
    QTest::newRow("time and zone without source")
        << QStringList{"12:30:00", "UTC", ""} << "\"Invalid infoSource ''" + allowed;
    QTest::newRow("source in lower case")
        << QStringList{"", "UTC", "host"} << "\"Invalid infoSource 'host'" + allowed;
    QTest::newRow("source with a placeholder")
        << QStringList{"", "", "%2"} << "\"Invalid infoSource '%2'" + allowed;
    // Callers' texts are cut.
    const QString cut(65536, 'x');
    const QString longText = cut + 'x';
    QTest::newRow("long source") << QStringList{"", "", longText}
                                 << "\"Invalid infoSource '" + cut + "'" + allowed;
    QTest::newRow("long time") << QStringList{longText, "", "HOST"}
                               << "\"Unable to set utcTime '" + cut + "'\"";
    QTest::newRow("long zone") << QStringList{"", longText, "HOST"}
                               << "\"Unable to set timeZone '" + cut + "'\"";
    QTest::newRow("time") << QStringList{"%1 %2", "UTC", "HOST"} << "\"Unable to set utcTime '%1 %2'\"";
    QTest::newRow("zone") << QStringList{"", "%1", "HOST"} << "\"Unable to set timeZone '%1'\"";
}

void TimeInfoTest::TimeInfoThatCannotBeSetIsReported()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);

    QCOMPARE(m_server.SetTimeInfo(arguments[0], arguments[1], arguments[2]), 1);

    QCOMPARE(TakeLog().last().text, ' ' + error);
    QCOMPARE(Read(kClockRecord), QByteArray("(missing)"));
    QCOMPARE(m_registry.getValue(kKey), QVariant());
    QCOMPARE(m_changed.size(), 0);
}

void TimeInfoTest::ResetLetsAnySourceSetTheTime()
{
    QVERIFY(m_registry.setValue(kKey, "HOST"));
    QCOMPARE(m_server.ResetTimeInfoSource(), 0);
    QCOMPARE(m_registry.getValue(kKey), QVariant("UNKNOWN"));
    QCOMPARE(m_changed.size(), 0);
}

void TimeInfoTest::EveryMethodAnswersThroughTheAdaptor()
{
    core::tools::Server server;
    auto* const adaptor = new ToolsAdaptor(&server);
    const QSignalSpy relayed(adaptor, &ToolsAdaptor::TimeInfoChanged);

    QCOMPARE(adaptor->SetTimeZone("Europe/Berlin"), 0);
    QCOMPARE(adaptor->SetSystemTime("2024-05-17 13:45:00"), 0);
    QCOMPARE(relayed.size(), 2);
    QCOMPARE(relayed.last().mid(1), QVariantList({"Europe/Berlin", "MANUAL"}));
    QCOMPARE(adaptor->SetTimeInfo("", "UTC", "HUB"), 1);
    QCOMPARE(adaptor->ResetTimeInfoSource(), 0);
    QCOMPARE(adaptor->SetTimeInfo("", "UTC", "HUB"), 0);
    QCOMPARE(relayed.size(), 3);
    QCOMPARE(adaptor->SaveVariableValue("A", "."), -1);
    QCOMPARE(adaptor->SaveVariableValue("A", "1"), 0);
    adaptor->EnableAudiopayd(true);
    QVERIFY(adaptor->IsAudiopaydEnabled());
    adaptor->EnableAudiopayd(false);
    QVERIFY(!adaptor->IsAudiopaydEnabled());
}

KX_TOOLS_TEST_MAIN(TimeInfoTest)

#include "tst_timeinfo.moc"
