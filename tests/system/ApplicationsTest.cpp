#include "DaemonFixture.h"

#include <QDBusArgument>
#include <QDBusMetaType>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

using kxtest::IdleProgram;
using kxtest::InstallApplication;
using kxtest::ProcessesOf;

namespace {

/// The type that a value had on the bus.
QString SignatureOf(const QVariant& value)
{
    if (value.canConvert<QDBusArgument>()) {
        return value.value<QDBusArgument>().currentSignature();
    }
    return QLatin1String(QDBusMetaType::typeToSignature(value.userType()));
}

/// Real, effective, saved and file-system id, as a process has them.
QByteArray FourTimes(uint id)
{
    return QStringLiteral("%1 %1 %1 %1").arg(id).toLatin1();
}

} // namespace

/// Which applications the daemon finds, and how it launches a program of one.
class ApplicationsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        WriteFile("/etc/group", ReadFile("/etc/group") + "extra:x:4050:pay\n");
        QVERIFY(m_daemon.Start());
    }

    void init() { kxtest::RemoveApplications(); }
    void cleanup() { m_daemon.Applications().Terminate().waitForFinished(); }
    void cleanupTestCase() { QCOMPARE(m_daemon.Stop(), 0); }

    void DescribesAnApplication()
    {
        InstallApplication(
            "pay", 4002, 4002,
            "<application><desktop_item icon_position=\"7\">html/menu.html</desktop_item></application>");
        const QList<QVariantMap> applications = m_daemon.Enumerate();
        QCOMPARE(applications.size(), 1);

        QMap<QString, QString> expected{{"desktopItems", "av"}, {"configPages", "av"}, {"cgiBinDefault", "b"},
                                        {"fastCgi", "b"},       {"uid", "u"},          {"gid", "u"}};
        for (const char* key :
             {"name", "resources", "prompts", "homeButton", "cardRanges", "BINRanges", "whiteList",
              "whiteListSignature", "whiteListSignaturePath", "showOnBoot", "runOnBoot", "homeDir", "tmpDir",
              "groupName", "userName", "webResources", "cacertPath"}) {
            expected.insert(key, "s");
        }
        QMap<QString, QString> types;
        const QVariantMap pay = applications.first();
        for (auto entry = pay.begin(); entry != pay.end(); ++entry) {
            types.insert(entry.key(), SignatureOf(entry.value()));
        }
        QCOMPARE(types, expected);
        const QVariant item = qdbus_cast<QVariantList>(pay.value("desktopItems")).value(0);
        QCOMPARE(SignatureOf(qdbus_cast<QVariantMap>(item).value("iconPosition")), QStringLiteral("i"));
    }

    void RefusesToStart_data()
    {
        const Table<QString, QString, QString> table;
        const auto row = [&](const QByteArray& application, const QByteArray& binary, const QString& text) {
            table(application + ": " + binary, application, binary, text);
        };
        row("", "app", "Application  doesn't exist");
        row("Nope%1", "app", "Application Nope%1 doesn't exist");
        row("nobin", "app", "Binary directory /home/nobin/bin doesn't exist");
        row("pay", "none%2", "Binary file /home/pay/bin/none%2 for app pay doesn't exist");
        row("pay", "dangling", "Binary file /home/pay/bin/dangling for app pay doesn't exist");
        row("pay", "../../../bin/sh", "Binary file /home/pay/bin/../../../bin isn't located in bin dir");
        row("pay", "out", "Binary file /home/pay/bin isn't located in bin dir");
        row("pay", "plain", "Binary file /home/pay/bin is not executable");
        row("rooted", "app", "Invalid owner of file /home/rooted/bin. Must be application user");
        row("rooted", "mixed", "Invalid owner of file /home/rooted/bin. Must be application user");
        row("pay", "", "Failed to start /home/pay/bin -x binary");
        row("pay", "broken", "Failed to start /home/pay/bin/broken -x binary");
    }

    void RefusesToStart()
    {
        const auto [application, binary, text] = FetchRow<QString, QString, QString>();
        InstallApplication("pay", 4002, 4002, {}, {{"bin/plain", "1"}, {"bin/broken", "#!/none\n", 0755}});
        MakeLink("/bin/sh", "/home/pay/bin/out");
        MakeLink("/none", "/home/pay/bin/dangling");
        InstallApplication("nobin", 4005, 4005);
        InstallApplication("rooted", 0, 0, {}, {IdleProgram("bin/app")});
        CopyProgram("/bin/sleep", "/home/rooted/bin/mixed", 4002, 0);
        m_daemon.Enumerate();
        const qint64 mark = kxtest::LogMark();
        QVariantMap request{{"binary", binary}, {"params", "-x"}};
        if (!application.isEmpty()) {
            request.insert("application", application);
        }
        QCOMPARE(m_daemon.StartRequest(request), (QVariantMap{{"errorCode", -1}, {"errorText", text}}));
        KX_TRY_VERIFY(!kxtest::LogSince(mark).isEmpty() &&
                      kxtest::LogSince(mark).last().text == '"' + text + '"');
        const kxtest::LogRecord record = kxtest::LogSince(mark).last();
        QCOMPARE(record.priority + ' ' + record.file + ' ' + record.function,
                 QString("err Server StartApplicationBinary"));
        QVERIFY(record.line > 0);
    }

    void GivesTheProgramItsIdentity_data()
    {
        const Table<uint, uint, QString, QString, uint, uint>
            row; // of the file; asked for, path; of the process
        const QString idle = "/home/pay/bin/idle";
        row("the application's own", 4002, 4002, "idle", idle, 4002, 4002);
        row("a system account's", 0, 0, "idle", idle, 4002, 4002);
        row("group out of range", 4003, 100, "idle", idle, 4002, 4002);
        row("another application's", 4003, 4999, "idle", idle, 4003, 4999);
        row("link inside", 4003, 4003, "sub/alias", idle, 4003, 4003);
        row("prefix without a slash", 4003, 4003, "../bin2/idle", "/home/pay/bin2/idle", 4002, 4002);
    }

    void GivesTheProgramItsIdentity()
    {
        const auto [fileUid, fileGid, binary, path, uid, gid] =
            FetchRow<uint, uint, QString, QString, uint, uint>();
        InstallApplication("pay", 4002, 4002, {}, {IdleProgram(), IdleProgram("bin2/idle")});
        QCOMPARE(chown("/home/pay/bin/idle", fileUid, fileGid), 0);
        QCOMPARE(chmod("/home/pay/bin/idle", 0755), 0);
        MakeLink("../idle", "/home/pay/bin/sub/alias");
        const pid_t pid = Start(binary, path, "100");
        QVERIFY(pid > 0);
        const auto status = StatusOf(pid);
        QCOMPARE(status.value("Uid"), FourTimes(uid));
        QCOMPARE(status.value("Gid"), FourTimes(gid));
        QList<QByteArray> groups{"4050", QByteArray::number(gid)};
        std::sort(groups.begin(), groups.end());
        QCOMPARE(status.value("Groups").split(' '), groups);
        for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
            QCOMPARE(status.value(set), QByteArray("0000000000000000"));
        }
        QCOMPARE(OwnerAndMode("/tmp/pay"), QStringLiteral("%1:%2 770").arg(uid).arg(gid));
    }

    void GivesTheProgramItsSurroundings()
    {
        InstallApplication("pay", 4002, 4002, {}, {IdleProgram()});
        const pid_t pid = Start("idle", "/home/pay/bin/idle", "  100   200 ");
        QVERIFY(pid > 0);
        QCOMPARE(EntriesOf(pid, "cmdline"), (QList<QByteArray>{"/home/pay/bin/idle", "100", "200"}));
        // Only the program started at boot has the socket.
        QVERIFY(!EntriesOf(pid, "environ").contains("APP_FASTCGI_SOCKET=/var/run/sockets/pay/fcgi"));

        const QString proc = QStringLiteral("/proc/%1/").arg(pid);
        QCOMPARE(QFileInfo(proc + "cwd").symLinkTarget(), QStringLiteral("/home/pay"));
        QCOMPARE(QDir(proc + "fd").entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System),
                 (QStringList{"0", "1", "2"}));
        QCOMPARE(getpgid(pid), pid);
        // A handler of the daemon must not leave the program deaf to signals.
        const auto status = StatusOf(pid);
        QCOMPARE(status.value("SigBlk") + status.value("SigCgt"), QByteArray(32, '0'));
        for (const int signo : {SIGTERM, SIGINT, SIGCHLD, SIGALRM, SIGHUP}) {
            QVERIFY((status.value("SigIgn").toULongLong(nullptr, 16) & (1ULL << (signo - 1))) == 0);
        }
    }

private:
    /// Launches a program of "pay". \return its process, by the path in its command line; 0 when that failed
    pid_t Start(const QString& binary, const QString& path, const QString& params)
    {
        m_daemon.Enumerate();
        const QVariantMap request{{"application", "pay"}, {"binary", binary}, {"params", params}};
        const QVariantMap result = m_daemon.StartRequest(request);
        if (result != QVariantMap{{"errorCode", 0}}) {
            qWarning() << result;
            return 0;
        }
        kxtest::WaitFor([&] { return ProcessesOf(path).size() == 1; });
        return ProcessesOf(path).value(0);
    }

    kxtest::DaemonFixture m_daemon;
};

QTEST_GUILESS_MAIN(ApplicationsTest)
#include "ApplicationsTest.moc"
