#include "ToolsFixture.h"

#include <unistd.h>

#include <ctime>

namespace {

/// Makes the process an ordinary account's while it lives.
class OrdinaryUser {
public:
    OrdinaryUser() : m_isChanged(seteuid(65534) == 0) {}
    ~OrdinaryUser()
    {
        if (m_isChanged && seteuid(0) != 0) {
            qFatal("cannot become root again");
        }
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    bool m_isChanged;
};

} // namespace

class ZoneTest : public ToolsFixture {
    Q_OBJECT

private slots:
    void ZoneLinkIsSet_data();
    void ZoneLinkIsSet();
    void ZoneOutsideIsRefused_data();
    void ZoneOutsideIsRefused();
    void LocalTimeFollowsTheZone();
    void SameZoneChangesNothing();
    void ZoneLinkThatCannotBeChangedIsReported();
    void CurrentZoneIsReadFromTheLink_data();
    void CurrentZoneIsReadFromTheLink();
};

void ZoneTest::ZoneLinkIsSet_data()
{
    QTest::addColumn<QString>("before"); // "file", "" or the target of a link
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("after");

    QTest::newRow("none before") << ""
                                 << "Europe/Berlin" << kBerlin;
    QTest::newRow("another zone before") << kBerlin << "Asia/Tokyo"
                                         << "/usr/share/zoneinfo/Asia/Tokyo";
    QTest::newRow("dangling link before") << "/nowhere"
                                          << "Europe/Berlin" << kBerlin;
    QTest::newRow("plain file before") << "file"
                                       << "Europe/Berlin" << kBerlin;
    QTest::newRow("alias") << ""
                           << "UTC"
                           << "/usr/share/zoneinfo/Etc/UTC";
    QTest::newRow("dots within") << ""
                                 << "Asia/../Europe/Berlin" << kBerlin;
    QTest::newRow("removed") << kBerlin << ""
                             << "";
    QTest::newRow("dangling link removed") << "/nowhere"
                                           << ""
                                           << "";
    QTest::newRow("nothing to remove") << ""
                                       << ""
                                       << "";
}

void ZoneTest::ZoneLinkIsSet()
{
    QFETCH(QString, before);
    QFETCH(QString, zone);
    QFETCH(QString, after);
    if (before == "file") {
        Write(kLink, "zone");
    } else if (!before.isEmpty()) {
        QVERIFY(QFile::link(before, kLink));
    }

    QCOMPARE(m_server.SetTimeZone(zone), 0);

    QCOMPARE(LinkTarget(kLink), after);
    QCOMPARE(m_registry.getValue(kKey), QVariant("MANUAL"));
    QCOMPARE(m_changed.size(), 1);
    QVERIFY(IsAbout(m_changed[0][0].toString(), "2023-11-14 22:13:20"));
    QCOMPARE(m_changed[0].mid(1), QVariantList({zone, "MANUAL"}));
    QCOMPARE(TakeLog().size(), 0);
}

void ZoneTest::ZoneOutsideIsRefused_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("quoted");

    QTest::newRow("way out") << "../../../etc/passwd"
                             << "\"../../../etc/passwd\"";
    QTest::newRow("way out behind a zone") << "Europe/../../../../etc"
                                           << "\"Europe/../../../../etc\"";
    QTest::newRow("the directory itself") << "."
                                          << "\".\"";
    QTest::newRow("missing") << "No/Such"
                             << "\"No/Such\"";
    QTest::newRow("link to nothing") << "localtime"
                                     << "\"localtime\"";
    QTest::newRow("line end") << "UTC\n"
                              << "\"UTC\\n\"";
    QTest::newRow("NUL") << QString::fromLatin1("UTC\0/../../../../etc/passwd", 26) << QString();
    QTest::newRow("not ASCII") << QString::fromUtf8("Köln") << QString::fromUtf8("\"Köln\"");
    const QString wayOut = "../../../etc/" + QString(300, 'a');
    QTest::newRow("way out to a name too long") << wayOut << '"' + wayOut + '"';
    QTest::newRow("too long to be logged whole") << QString(1000000, 'a') << '"' + QString(65536, 'a') + '"';
}

void ZoneTest::ZoneOutsideIsRefused()
{
    QFETCH(QString, zone);
    QFETCH(QString, quoted);

    QCOMPARE(m_server.SetTimeZone(zone), 1);

    const QStringList errors = Errors("SetTimeZone");
    QCOMPARE(errors.size(), 1);
    QVERIFY(errors[0].startsWith("Time zone file \""));
    QVERIFY(errors[0].endsWith("\" is not located in /usr/share/zoneinfo/"));
    QVERIFY(errors[0].contains(quoted));
    QCOMPARE(LinkTarget(kLink), QString());
    QCOMPARE(m_registry.getValue(kKey), QVariant());
    QCOMPARE(m_changed.size(), 0);
}

void ZoneTest::LocalTimeFollowsTheZone()
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

void ZoneTest::SameZoneChangesNothing()
{
    QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 0);
    QVERIFY(m_registry.setValue(kKey, "HUB"));
    QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 0);
    QCOMPARE(m_registry.getValue(kKey), QVariant("HUB"));
    QCOMPARE(m_changed.size(), 1);
}

void ZoneTest::ZoneLinkThatCannotBeChangedIsReported()
{
    {
        const OrdinaryUser user;
        QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 1);
        QCOMPARE(Errors("SetTimeZone"),
                 QStringList("Error creating time zone symlink to \"" + kBerlin + '"'));
    }
    QVERIFY(QDir().mkdir(kLink));
    QCOMPARE(m_server.SetTimeZone("Europe/Berlin"), 1);
    QCOMPARE(Errors("SetTimeZone"), QStringList("Unable to remove \"/etc/localtime\""));
    QCOMPARE(m_changed.size(), 0);
}

void ZoneTest::CurrentZoneIsReadFromTheLink_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("error");

    const QString longTarget = '/' + QString(400, 'a');
    QTest::newRow("zone") << kBerlin << "Europe/Berlin"
                          << "";
    QTest::newRow("another root") << "/opt/zoneinfo/posix/UTC"
                                  << "posix/UTC"
                                  << "";
    QTest::newRow("no zone") << "/etc/passwd"
                             << ""
                             << "Unexpected time zone symlink: /etc/passwd";
    QTest::newRow("long") << longTarget << ""
                          << "Unexpected time zone symlink: " + longTarget.left(255);
    QTest::newRow("none") << ""
                          << ""
                          << "readlink() failed:  No such file or directory";
}

void ZoneTest::CurrentZoneIsReadFromTheLink()
{
    QFETCH(QString, target);
    QFETCH(QString, zone);
    QFETCH(QString, error);
    if (!target.isEmpty()) {
        QVERIFY(QFile::link(target, kLink));
    }
    QCOMPARE(core::tools::Server::GetTimeZone(), zone);
    QCOMPARE(Errors("GetTimeZone"), error.isEmpty() ? QStringList() : QStringList(error));
}

KX_TOOLS_TEST_MAIN(ZoneTest)

#include "tst_zone.moc"
