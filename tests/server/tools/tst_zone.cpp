#include "ToolsFixture.h"

#include <unistd.h>

#include <ctime>

class ZoneTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void ZoneLinkIsSet_data()
    {
        const Table<QString, QString, QString> row; // "file", "" or the target of a link; zone; target after
        row("none before", "", "Europe/Berlin", kBerlin);
        row("another zone before", kBerlin, "Asia/Tokyo", "/usr/share/zoneinfo/Asia/Tokyo");
        row("dangling link before", "/nowhere", "Europe/Berlin", kBerlin);
        row("plain file before", "file", "Europe/Berlin", kBerlin);
        row("alias", "", "UTC", "/usr/share/zoneinfo/Etc/UTC");
        row("dots within", "", "Asia/../Europe/Berlin", kBerlin);
        row("removed", kBerlin, "", "");
        row("dangling link removed", "/nowhere", "", "");
        row("nothing to remove", "", "", "");
    }

    void ZoneLinkIsSet()
    {
        const auto [before, zone, after] = FetchRow<QString, QString, QString>();
        if (before == "file") {
            WriteFile(kLink, "zone");
        } else if (!before.isEmpty()) {
            MakeLink(before, kLink);
        }
        QCOMPARE(m_server.SetTimeZone(zone), 0);
        QCOMPARE(LinkTarget(kLink), after);
        ExpectAnnounced("2023-11-14 22:13:20", zone, "MANUAL");
    }

    void ZoneOutsideIsRefused_data()
    {
        const Table<QString, QString> row; // the zone, and how it is quoted
        for (const char* zone :
             {"../../../etc/passwd", "Europe/../../../../etc", ".", "No/Such", "localtime"}) {
            row(zone, zone, zone);
        }
        row("line end", "UTC\n", "UTC\\n");
        row("NUL", QString::fromLatin1("UTC\0/../../../../etc/passwd", 26), {});
        row("not ASCII", QString::fromUtf8("Köln"), QString::fromUtf8("Köln"));
        const QString wayOut = "../../../etc/" + QString(300, 'a');
        row("way out to a name too long", wayOut, wayOut);
        row("too long to be logged whole", QString(1000000, 'a'), QString(65536, 'a'));
    }

    void ZoneOutsideIsRefused()
    {
        const auto [zone, quoted] = FetchRow<QString, QString>();
        QCOMPARE(m_server.SetTimeZone(zone), 1);
        const QStringList errors = Errors("SetTimeZone");
        QCOMPARE(errors.size(), 1);
        QVERIFY(errors[0].startsWith("Time zone file \"" + quoted + (quoted.isNull() ? "" : "\"")));
        QVERIFY(errors[0].endsWith("\" is not located in /usr/share/zoneinfo/"));
        QCOMPARE(LinkTarget(kLink), QString());
        ExpectNothingChanged();
    }

    void LocalTimeFollowsTheZone()
    {
        constexpr std::time_t noon = 1715947200; // 2024-05-17 12:00:00 UTC
        const QList<QPair<QString, int>> hours{{"Europe/Berlin", 14}, {"Asia/Tokyo", 21}, {"", 12}};
        for (const auto& [zone, hour] : hours) {
            QCOMPARE(m_server.SetTimeZone(zone), 0);
            // Unlike localtime this does not look for the zone itself, and syslog neither.
            std::tm local{};
            QVERIFY(localtime_r(&noon, &local) != nullptr);
            QCOMPARE(local.tm_hour, hour);
        }
    }

    void SameZoneChangesNothing()
    {
        QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 0);
        QVERIFY(m_registry.setValue(kKey, "HUB"));
        QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 0);
        QCOMPARE(m_registry.getValue(kKey), QVariant("HUB"));
        QCOMPARE(m_changed.size(), 1);
    }

    void ZoneLinkThatCannotBeChangedIsReported()
    {
        QCOMPARE(seteuid(65534), 0);
        const int asOrdinaryUser = m_server.SetTimeZone("Europe/Berlin");
        QCOMPARE(seteuid(0), 0);
        QCOMPARE(asOrdinaryUser, 1);
        MakeDirectory(kLink);
        QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 1);
        QCOMPARE(Errors("SetTimeZone"), (QStringList{"Error creating time zone symlink to \"" + kBerlin + '"',
                                                     "Unable to remove \"/etc/localtime\""}));
        QCOMPARE(m_changed.size(), 0);
    }

    void CurrentZoneIsReadFromTheLink_data()
    {
        const Table<QString, QString, QString> row; // target, zone, error
        const QString longTarget = '/' + QString(400, 'a');
        row("zone", kBerlin, "Europe/Berlin", {});
        row("another root", "/opt/zoneinfo/posix/UTC", "posix/UTC", {});
        row("no zone", "/etc/passwd", "", "Unexpected time zone symlink: /etc/passwd");
        row("long", longTarget, "", "Unexpected time zone symlink: " + longTarget.left(255));
        row("none", "", "", "readlink() failed:  No such file or directory");
    }

    void CurrentZoneIsReadFromTheLink()
    {
        const auto [target, zone, error] = FetchRow<QString, QString, QString>();
        if (!target.isEmpty()) {
            MakeLink(target, kLink);
        }
        QCOMPARE(core::tools::Server::GetTimeZone(), zone);
        QCOMPARE(Errors("GetTimeZone"), error.isNull() ? QStringList() : QStringList(error));
    }
};

KX_TEST_MAIN(ZoneTest)
#include "tst_zone.moc"
