#include "DaemonFixture.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDir>
#include <QFileInfo>
#include <QMap>

#include <sys/stat.h>
#include <unistd.h>

using kxtest::ContentOf;
using kxtest::DaemonFixture;
using kxtest::HomeFile;
using kxtest::IdleProgram;
using kxtest::InstallApplication;
using kxtest::ProcessesOf;

namespace {

const QByteArray kPayConf = R"(<application>
  <resources>res/res.xml</resources>
  <web_resources>web</web_resources>
  <prompts>res/prompts.json</prompts>
  <home_button>html/home.html</home_button>
  <card_ranges>card_ranges.xml</card_ranges>
  <bin_ranges>bin_ranges.db</bin_ranges>
  <white_list signature="0aff" signature_path="white_list.sig">white_list.xml</white_list>
  <desktop_item icon_path="html/icon.png" title="Pay" icon_position="7">html/menu.html</desktop_item>
  <desktop_item title="Refund">html/refund.html</desktop_item>
  <config_page title="Setup">html/setup.html</config_page>
  <ca_cert>ca.pem</ca_cert>
</application>)";

/// The type that a value had on the bus.
QString SignatureOf(const QVariant& value)
{
    if (value.canConvert<QDBusArgument>()) {
        return value.value<QDBusArgument>().currentSignature();
    }
    return QLatin1String(QDBusMetaType::typeToSignature(value.userType()));
}

QList<QVariantMap> ItemsOf(const QVariantMap& application, const QString& key)
{
    QList<QVariantMap> items;
    const auto list = qdbus_cast<QVariantList>(application.value(key));
    for (const QVariant& item : list) {
        items.append(qdbus_cast<QVariantMap>(item));
    }
    return items;
}

QStringList NamesOf(const QList<QVariantMap>& applications)
{
    QStringList names;
    for (const QVariantMap& application : applications) {
        names.append(application.value("name").toString());
    }
    return names;
}

/// The words that follow "Key:" in /proc/<pid>/status.
QStringList StatusOf(pid_t pid, const char* key)
{
    const QStringList lines =
        QString::fromLocal8Bit(ContentOf(QStringLiteral("/proc/%1/status").arg(pid))).split('\n');
    for (const QString& line : lines) {
        const QStringList words = line.simplified().split(' ');
        if (words.first() == QLatin1String(key)) {
            return words.mid(1);
        }
    }
    return {};
}

QList<QByteArray> StringsOf(pid_t pid, const char* file)
{
    QByteArray content = ContentOf(QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(file)));
    content.chop(1);
    return content.split('\0');
}

QMap<QByteArray, QByteArray> EnvironmentOf(pid_t pid)
{
    QMap<QByteArray, QByteArray> environment;
    for (const QByteArray& variable : StringsOf(pid, "environ")) {
        const int equals = variable.indexOf('=');
        environment.insert(variable.left(equals), variable.mid(equals + 1));
    }
    return environment;
}

/// "mode owner:group" of a file.
QString AccessOf(const char* path)
{
    struct stat info = {};
    if (stat(path, &info) != 0) {
        return QStringLiteral("missing");
    }
    return QStringLiteral("%1 %2:%3").arg(info.st_mode & 07777U, 0, 8).arg(info.st_uid).arg(info.st_gid);
}

void RunInShell(const QByteArray& commands)
{
    QCOMPARE(QProcess::execute("/bin/sh", {"-c", QString::fromUtf8(commands)}), 0);
}

} // namespace

/// Which applications the daemon finds, and how it launches a program of one.
class ApplicationsTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void DescribesAnApplication();
    void SurvivesHostileHomes_data();
    void SurvivesHostileHomes();
    void RefusesToStart_data();
    void RefusesToStart();
    void GivesTheProgramItsIdentity_data();
    void GivesTheProgramItsIdentity();
    void GivesTheProgramItsSurroundings();
    void AcceptsALinkInsideBin();

private:
    /// Launches the idle program of "pay". \return its process; 0 when that failed
    pid_t StartIdle(const QString& params);

    DaemonFixture m_daemon;
};

void ApplicationsTest::init()
{
    kxtest::RemoveApplications();
}

void ApplicationsTest::cleanup()
{
    if (m_daemon.IsRunning()) {
        m_daemon.Applications().Terminate().waitForFinished();
        QCOMPARE(m_daemon.Stop(), 0);
    }
}

void ApplicationsTest::DescribesAnApplication()
{
    InstallApplication("pay", 4002, 4002, kPayConf, {{"cgi-bin/stop", ""}});
    InstallApplication("shop", 4003, 4003);
    InstallApplication("desktop", 4001, 4001);
    QVERIFY(m_daemon.Start());
    const QList<QVariantMap> applications = m_daemon.Enumerate();
    QCOMPARE(NamesOf(applications), (QStringList{"desktop", "pay", "shop"}));

    QMap<QString, QString> types;
    const QVariantMap pay = applications.at(1);
    for (auto entry = pay.begin(); entry != pay.end(); ++entry) {
        types.insert(entry.key(), SignatureOf(entry.value()));
    }
    QMap<QString, QString> expected{{"desktopItems", "av"}, {"configPages", "av"}, {"cgiBinDefault", "b"},
                                    {"fastCgi", "b"},       {"uid", "u"},          {"gid", "u"}};
    for (const char* key :
         {"name", "resources", "prompts", "homeButton", "cardRanges", "BINRanges", "whiteList",
          "whiteListSignature", "whiteListSignaturePath", "showOnBoot", "runOnBoot", "homeDir", "tmpDir",
          "groupName", "userName", "webResources", "cacertPath"}) {
        expected.insert(key, "s");
    }
    QCOMPARE(types, expected);
    QCOMPARE(pay.value("uid").toUInt(), 4002U);
    QCOMPARE(pay.value("userName").toString(), QStringLiteral("pay"));
    QCOMPARE(pay.value("cacertPath").toString(), QStringLiteral("/home/pay/ca.pem"));
    QVERIFY(!pay.value("fastCgi").toBool());
    QVERIFY(applications.at(2).value("fastCgi").toBool());

    const QList<QVariantMap> items = ItemsOf(pay, "desktopItems");
    QCOMPARE(items.size(), 2);
    QCOMPARE(items.at(0), (QVariantMap{{"form", "/html/pay/menu.html"},
                                       {"iconPath", "/html/pay/icon.png"},
                                       {"iconPosition", 7},
                                       {"title", "Pay"}}));
    QCOMPARE(SignatureOf(items.at(0).value("iconPosition")), QStringLiteral("i"));
    QCOMPARE(items.at(1).value("title").toString(), QStringLiteral("Refund"));
    QCOMPARE(ItemsOf(pay, "configPages").size(), 1);
}

void ApplicationsTest::SurvivesHostileHomes_data()
{
    QTest::addColumn<QByteArray>("commands"); // run in the home directory
    QTest::newRow("pipe") << QByteArray("mkfifo app.conf");
    QTest::newRow("directory") << QByteArray("mkdir app.conf");
    QTest::newRow("endless device") << QByteArray("ln -s /dev/zero app.conf");
    QTest::newRow("terminal") << QByteArray("ln -s /dev/ptmx app.conf");
    QTest::newRow("dangling link") << QByteArray("ln -s nowhere app.conf");
    QTest::newRow("too large") << QByteArray(
        "(echo '<application>'; head -c 1048576 /dev/zero | tr '\\0' ' ';"
        " echo '</application>') >app.conf");
    QTest::newRow("malformed") << QByteArray("echo '<application><prompts>' >app.conf");
    QTest::newRow("deep") << QByteArray("head -c 300000 /dev/zero | sed 's/\\x00/<a>/g' >app.conf");
    QTest::newRow("exploding") << QByteArray(
        R"sh((echo '<!DOCTYPE a [<!ENTITY e "'; head -c 4000 /dev/zero | tr '\0' x; echo '">]><application>';)sh"
        R"sh( head -c 340000 /dev/zero | sed 's/\x00/\&e;/g'; echo '</application>') >app.conf)sh");
}

void ApplicationsTest::SurvivesHostileHomes()
{
    QFETCH(QByteArray, commands);
    InstallApplication("broken", 4004, 4004);
    InstallApplication("pay", 4002, 4002, "<application><prompts>p.json</prompts></application>");
    RunInShell("cd /home/broken && " + commands);
    QVERIFY(m_daemon.Start());

    QElapsedTimer timer;
    timer.start();
    const QList<QVariantMap> applications = m_daemon.Enumerate();
    QVERIFY(timer.elapsed() < kxtest::Bound(2000));
    QCOMPARE(NamesOf(applications), (QStringList{"broken", "pay"}));
    QCOMPARE(applications.at(0).value("uid").toUInt(), 4004U);
    QCOMPARE(applications.at(0).value("prompts").toString(), QString());
    QCOMPARE(applications.at(1).value("prompts").toString(), QStringLiteral("/home/pay/p.json"));
}

void ApplicationsTest::RefusesToStart_data()
{
    QTest::addColumn<QString>("application");
    QTest::addColumn<QString>("binary");
    QTest::addColumn<QString>("text");
    QTest::newRow("no name") << ""
                             << "idle"
                             << "Application  doesn't exist";
    QTest::newRow("not installed") << "Nope"
                                   << "idle"
                                   << "Application Nope doesn't exist";
    QTest::newRow("no directory") << "shop"
                                  << "idle"
                                  << "Binary directory /home/shop/bin doesn't exist";
    QTest::newRow("no file") << "pay"
                             << "%1"
                             << "Binary file /home/pay/bin/%1 for app pay doesn't exist";
    QTest::newRow("above bin") << "pay"
                               << "../../../bin/sh"
                               << "Binary file /home/pay/bin/../../../bin isn't located in bin dir";
    QTest::newRow("link out of bin") << "pay"
                                     << "escape"
                                     << "Binary file /home/pay/bin isn't located in bin dir";
    QTest::newRow("not executable") << "pay"
                                    << "data"
                                    << "Binary file /home/pay/bin is not executable";
    QTest::newRow("owner") << "system"
                           << "idle"
                           << "Invalid owner of file /home/system/bin. Must be application user";
    QTest::newRow("no program") << "pay"
                                << "garbage"
                                << "Failed to start /home/pay/bin/garbage -x binary";
}

void ApplicationsTest::RefusesToStart()
{
    QFETCH(QString, application);
    QFETCH(QString, binary);
    QFETCH(QString, text);
    InstallApplication("pay", 4002, 4002, {}, {{"bin/data", "1"}, {"bin/garbage", "1", 0755}});
    QFile::link("/bin/sh", "/home/pay/bin/escape");
    InstallApplication("shop", 4003, 4003);
    InstallApplication("system", 0, 4000, {}, {IdleProgram()});
    QVERIFY(m_daemon.Start());

    QVariantMap request{{"binary", binary}, {"params", "-x"}};
    if (!application.isEmpty()) {
        request.insert("application", application);
    }
    QCOMPARE(m_daemon.StartRequest(request), (QVariantMap{{"errorCode", -1}, {"errorText", text}}));
    const kxtest::LogRecord record = m_daemon.WaitForRecord(text);
    QCOMPARE(record.text, '"' + text + '"');
    QCOMPARE(record.priority, QStringLiteral("err"));
    QCOMPARE(record.file + ':' + record.function, QStringLiteral("Server:StartApplicationBinary"));
    QVERIFY(record.line > 0);
}

void ApplicationsTest::GivesTheProgramItsIdentity_data()
{
    QTest::addColumn<uint>("fileUid");
    QTest::addColumn<uint>("fileGid");
    QTest::addColumn<uint>("uid");
    QTest::addColumn<uint>("gid");
    QTest::newRow("the application's own") << 4002U << 4002U << 4002U << 4002U;
    QTest::newRow("a system account's") << 0U << 0U << 4002U << 4002U;
    QTest::newRow("group out of range") << 4003U << 100U << 4002U << 4002U;
    QTest::newRow("another application's") << 4003U << 4999U << 4003U << 4999U;
}

void ApplicationsTest::GivesTheProgramItsIdentity()
{
    QFETCH(uint, fileUid);
    QFETCH(uint, fileGid);
    QFETCH(uint, uid);
    QFETCH(uint, gid);
    InstallApplication("pay", 4002, 4002, {}, {IdleProgram()});
    QCOMPARE(chown("/home/pay/bin/idle", fileUid, fileGid), 0);
    QCOMPARE(chmod("/home/pay/bin/idle", 0755), 0);
    QVERIFY(m_daemon.Start());
    const pid_t pid = StartIdle("100");
    QVERIFY(pid > 0);

    // Real, effective, saved and file-system ids.
    QCOMPARE(StatusOf(pid, "Uid:").join(' '), QStringLiteral("%1 %1 %1 %1").arg(uid));
    QCOMPARE(StatusOf(pid, "Gid:").join(' '), QStringLiteral("%1 %1 %1 %1").arg(gid));
    QVERIFY(!StatusOf(pid, "Groups:").contains("0"));
    QVERIFY(StatusOf(pid, "Groups:").contains(QString::number(gid)));
    QCOMPARE(StatusOf(pid, "CapEff:"), QStringList("0000000000000000"));
    QCOMPARE(StatusOf(pid, "CapPrm:"), QStringList("0000000000000000"));
    QCOMPARE(AccessOf("/tmp/pay"), QStringLiteral("770 %1:%2").arg(uid).arg(gid));
}

void ApplicationsTest::GivesTheProgramItsSurroundings()
{
    InstallApplication("pay", 4002, 4002, {}, {IdleProgram()});
    m_daemon.SetEnvironment("HOME", "/root");
    m_daemon.SetEnvironment("KX_INHERITED", "a b");
    QVERIFY(m_daemon.Start());
    const pid_t pid = StartIdle("  100   200 ");
    QVERIFY(pid > 0);

    QCOMPARE(StringsOf(pid, "cmdline"), (QList<QByteArray>{"/home/pay/bin/idle", "100", "200"}));
    const QMap<QByteArray, QByteArray> environment = EnvironmentOf(pid);
    const QMap<QByteArray, QByteArray> expected{
        {"APP_NAME", "pay"},
        {"APP_HOME_DIR", "/home/pay"},
        {"APP_TMP_DIR", "/tmp/pay"},
        {"HOME", "/home/pay"},
        {"USER", "pay"},
        {"OLDPWD", "/home/pay"},
        {"LOGNAME", "pay"},
        {"APP_SHARED_DIR", "/shared"},
        {"KX_INHERITED", "a b"},
        {"PATH", qgetenv("PATH")},
    };
    for (auto entry = expected.begin(); entry != expected.end(); ++entry) {
        QCOMPARE(entry.key() + '=' + environment.value(entry.key()), entry.key() + '=' + entry.value());
    }
    QVERIFY2(!environment.contains("APP_FASTCGI_SOCKET"), "only the program started at boot has the socket");

    const QString proc = QStringLiteral("/proc/%1/").arg(pid);
    QCOMPARE(QFileInfo(proc + "cwd").symLinkTarget(), QStringLiteral("/home/pay"));
    QCOMPARE(QDir(proc + "fd").entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System),
             (QStringList{"0", "1", "2"}));
    QCOMPARE(getpgid(pid), pid);
    // A handler of the daemon must not leave the program deaf to signals.
    QCOMPARE(StatusOf(pid, "SigBlk:"), QStringList("0000000000000000"));
    QCOMPARE(StatusOf(pid, "SigCgt:"), QStringList("0000000000000000"));
    QCOMPARE(AccessOf("/shared"), QStringLiteral("777 0:0"));
}

void ApplicationsTest::AcceptsALinkInsideBin()
{
    InstallApplication("pay", 4002, 4002, {}, {IdleProgram()});
    QVERIFY(QFile::link("idle", "/home/pay/bin/alias"));
    QVERIFY(m_daemon.Start());
    QCOMPARE(m_daemon.StartRequest({{"application", "pay"}, {"binary", "alias"}, {"params", "100"}}),
             (QVariantMap{{"errorCode", 0}}));
    KX_TRY_COMPARE(ProcessesOf("/home/pay/bin/idle").size(), 1);
}

pid_t ApplicationsTest::StartIdle(const QString& params)
{
    const QVariantMap result =
        m_daemon.StartRequest({{"application", "pay"}, {"binary", "idle"}, {"params", params}});
    if (result != QVariantMap{{"errorCode", 0}}) {
        qWarning() << result;
        return 0;
    }
    kxtest::WaitFor([] { return ProcessesOf("/home/pay/bin/idle").size() == 1; });
    return ProcessesOf("/home/pay/bin/idle").value(0);
}

QTEST_GUILESS_MAIN(ApplicationsTest)
#include "ApplicationsTest.moc"
