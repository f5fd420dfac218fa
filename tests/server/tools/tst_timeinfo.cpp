#include "ToolsFixture.h"

namespace {

const QString kStart = "2023-11-14 22:13:20";
const QStringList kSources{"HOST", "MANUAL", "HUB", "UNKNOWN"};

} // namespace

class TimeInfoTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void SourcesHavePrecedence_data()
    {
        const Table<QString, QStringList> row; // current, those that may overwrite it
        for (int rank = 0; rank < kSources.size(); ++rank) {
            row(kSources[rank].toLatin1(), kSources[rank], kSources.mid(0, rank + 1));
        }
        row("unset", {}, kSources);
        row("not a source", "host", kSources);
    }

    void SourcesHavePrecedence()
    {
        const auto [current, allowed] = FetchRow<QString, QStringList>();
        for (const QString& source : kSources) {
            init();
            if (!current.isNull()) {
                QVERIFY(m_registry.setValue(kKey, current));
            }
            const bool isAllowed = allowed.contains(source);
            QCOMPARE(m_server.SetTimeInfo("", "UTC", source), isAllowed ? 0 : 1);
            QCOMPARE(QFileInfo(kLink).isSymLink(), isAllowed);
            if (isAllowed) {
                ExpectAnnounced(kStart, "UTC", source);
            } else {
                QCOMPARE(Errors("SetTimeInfo"),
                         QStringList("\"Unable to set time info: '" + source +
                                     "' cannot overwrite time set by '" + current + "'\""));
                QCOMPARE(m_registry.getValue(kKey).toString(), current);
                QCOMPARE(m_changed.size(), 0);
            }
        }
    }

    void TimeInfoIsSetTogether_data()
    {
        // The arguments; what the clock is set to; time, link target and source after.
        const Table<QStringList, QByteArray, QString, QString, QString> row;
        const QByteArray tenUtc = "1715940000\n";
        const QString ten = "2024-05-17 10:00:00";
        row("all", {ten, "Europe/Berlin", "HOST"}, tenUtc, ten, kBerlin, "HOST");
        row("time", {ten, "", "HUB"}, tenUtc, ten, "", "HUB");
        row("zone", {"", "Europe/Berlin", "HUB"}, {}, kStart, kBerlin, "HUB");
        row("source", {"", "", "MANUAL"}, {}, kStart, "", "MANUAL");
        row("nothing", {"", "", ""}, {}, kStart, "", "UNKNOWN");
    }

    void TimeInfoIsSetTogether()
    {
        const auto [arguments, set, utcTime, target, source] =
            FetchRow<QStringList, QByteArray, QString, QString, QString>();
        MakeLink("/usr/share/zoneinfo/Asia/Tokyo", kLink);
        QCOMPARE(m_server.SetTimeInfo(arguments[0], arguments[1], arguments[2]), 0);
        QCOMPARE(ReadFile(kClockRecord), set);
        QCOMPARE(LinkTarget(kLink), target);
        ExpectAnnounced(utcTime, arguments[1], source);
    }

    void TimeInfoThatCannotBeSetIsReported_data()
    {
        const Table<QStringList, QString> row;
        const QString noSource = "Invalid infoSource '%1', allowed values: HOST, MANUAL, HUB, UNKNOWN";
        row("zone without source", {"", "UTC", ""}, noSource.arg(""));
        row("time and zone without source", {"12:30:00", "UTC", ""}, noSource.arg(""));
        row("source in lower case", {"", "UTC", "host"}, noSource.arg("host"));
        row("source with a placeholder", {"", "", "%2"}, noSource.arg("%2"));
        row("time", {"%1 %2", "UTC", "HOST"}, "Unable to set utcTime '%1 %2'");
        row("zone", {"", "%1", "HOST"}, "Unable to set timeZone '%1'");
        // Callers' texts are cut.
        const QString cut(65536, 'x');
        row("long source", {"", "", cut + 'x'}, noSource.arg(cut));
        row("long time", {cut + 'x', "", "HOST"}, "Unable to set utcTime '" + cut + '\'');
        row("long zone", {"", cut + 'x', "HOST"}, "Unable to set timeZone '" + cut + '\'');
    }

    void TimeInfoThatCannotBeSetIsReported()
    {
        const auto [arguments, error] = FetchRow<QStringList, QString>();
        QCOMPARE(m_server.SetTimeInfo(arguments[0], arguments[1], arguments[2]), 1);
        QCOMPARE(TakeLog().last().text, " \"" + error + '"');
        QVERIFY(!QFile::exists(kClockRecord));
        ExpectNothingChanged();
    }

    void ResetLetsAnySourceSetTheTime()
    {
        QVERIFY(m_registry.setValue(kKey, "HOST"));
        QCOMPARE(m_server.ResetTimeInfoSource(), 0);
        QCOMPARE(m_registry.getValue(kKey), QVariant("UNKNOWN"));
        QCOMPARE(m_changed.size(), 0);
    }
};

KX_TEST_MAIN(TimeInfoTest)
#include "tst_timeinfo.moc"
