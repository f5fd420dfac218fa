#include "server/applications/Server.h"

#include "FailingCall.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"
#include "TestBus.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <new>

using core::applications::Server;

namespace {

constexpr auto kNoApps = "http://localhost/cgi-bin/page/show?path=platform/misc/noapps.html";
constexpr auto kDesktop = "http://localhost/cgi-bin/page/show?path=desktop/index.html";
constexpr auto kOnce = "/home/platform/html/show_once.html";
constexpr auto kDefaultCgi = "/var/run/www/cgi-bin-default";
constexpr auto kCalls = "/run/standins/calls";

/// An application with the forms html/index.html and html/boot.html and the program bin/app.
void Install(const QString& name, unsigned id, const QByteArray& settings = QByteArray())
{
    const QString home = "/home/" + name;
    MakeDirectory(home, id, id);
    WriteFile(home + "/html/index.html");
    WriteFile(home + "/html/boot.html");
    CopyProgram("/bin/sleep", home + "/bin/app");
    WriteFile(home + "/app.conf", "<application>" + settings + "</application>", id, id);
}

QString Error(const char* function, const QString& text)
{
    return QStringLiteral("3 %1 \"%2\"").arg(function, text);
}

QVariantMap Request(const QString& application, const QString& binary)
{
    return {{"application", application}, {"binary", binary}, {"params", "60"}};
}

} // namespace

class ServerTest : public Fixture {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Fixture::initTestCase();
        OpenBus();
        QVERIFY(m_browser.Appear());
    }

    void init()
    {
        RemoveAll("/home");
        RemoveAll("/run/www");
        RemoveAll("/run/sockets");
        RemoveAll(kCalls);
        MakeDirectory("/home");
        Settle();
        Fixture::init();
    }

    void cleanup()
    {
        for (const pid_t child : Children()) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    void EnumeratesHomesAndPublishesThem()
    {
        Install("pay", 4002, "<ca_cert>ca</ca_cert>");
        Install("desktop", 4001);
        WriteFile("/home/file");
        MakeDirectory("/home/broken");
        QCOMPARE(mkfifo("/home/broken/app.conf", 0666), 0);
        WriteFile("/run/www/html/gone/page.html");
        WriteFile("/run/www/files/old");
        Server server;
        const QList<QVariantMap> list = server.Enumerate();
        QStringList names;
        for (const QVariantMap& map : list) {
            names.append(map.value("name").toString());
        }
        QCOMPARE(names, QStringList({"broken", "desktop", "pay"}));
        QCOMPARE(list[2].value("cacertPath").toString(), QStringLiteral("/home/pay/ca"));
        QCOMPARE(list[2].value("uid"), QVariant(4002U));

        QVERIFY(!QFileInfo::exists("/run/www/html/gone") && !QFileInfo::exists("/run/www/files/old"));
        for (const QString dir : {"/cgi-bin", "/html", "/files"}) {
            QCOMPARE(OwnerAndMode("/run/www" + dir), QStringLiteral("0:0 777"));
            QCOMPARE(QFile::symLinkTarget("/run/www" + dir + "/pay"), "/home/pay" + dir);
        }
        QCOMPARE(OwnerAndMode("/run/www") + OwnerAndMode("/run/sockets"), QStringLiteral("0:0 7770:0 777"));
        QCOMPARE(TakeLogLines(), QStringList());
        RemoveAll("/home");
        QCOMPARE(server.Enumerate(), QList<QVariantMap>());
    }

    void PublishingFailuresAreWarnings()
    {
        Server server;
        WriteFile("/run/www");
        RemoveAll("/run/sockets");
        WriteFile("/run/sockets");
        server.CreateSymlinksForLighttpd("/home/pay", "pay");
        const QString start = "4 CreateSymlinksForLighttpd Failed to create ";
        QStringList expected(start + "www directory");
        for (const QString sub : {"cgi-bin", "html", "files"}) {
            expected << QStringLiteral(R"(%1directory  "/var/run/www/%2")").arg(start, sub)
                     << QStringLiteral(R"(%1symlink  "%2"  to  "pay")").arg(start, sub);
        }
        expected << start + "sockets directory";
        QCOMPARE(TakeLogLines().filter("CreateSymlinksForLighttpd"), expected);
    }

    void FirstDefaultApplicationCounts()
    {
        Server server;
        QCOMPARE(server.GetNameOfInstalledDefaultApp(), QString());
        for (const char* name : {"systemutils", "systemconfig", "productiontest", "desktop"}) {
            WriteFile(QStringLiteral("/home/%1/html/index.html").arg(name));
            QCOMPARE(server.GetNameOfInstalledDefaultApp(), QString(name));
        }
        RemoveAll("/home/desktop/html/index.html");
        MakeDirectory("/home/desktop/html/index.html");
        QCOMPARE(server.GetNameOfInstalledDefaultApp(), QStringLiteral("productiontest"));
    }

    void ApplicationIds()
    {
        QVERIFY(Server::IsValidAppID(4000, 4999) && Server::IsValidAppID(4999, 4000));
        QVERIFY(!Server::IsValidAppID(3999, 4000) && !Server::IsValidAppID(4000, 3999));
        QVERIFY(!Server::IsValidAppID(5000, 4000) && !Server::IsValidAppID(4000, 5000));
        QVERIFY(!Server::IsValidAppID(~0U, ~0U));
    }

    void PageAddresses_data()
    {
        Columns<QString, QString, QString, QString, bool>("page", "name", "address", "nameAfter", "missing");
        const auto shown = [](const char* page, const char* name, const char* address, const char* after) {
            Row(page, page, name, address, after, false);
        };
        shown("html/index.html", "App", "App/index.html", "App");
        shown("./html/a//../index.html", "App", "App/index.html", "App");
        shown("/home/App/html/a b.html", "", "App/a%20b.html", "App");
        shown("/home/App/html/a b.html", "Other", "App/a%20b.html", "App");
        shown("html/%1.html", "App", "App/%251.html", "App");
        shown("html/\u00e4.html", "App", "App/%C3%A4.html", "App");
        shown("/home/A/html/b/html/c", "", "A/html/b/c", "A/html/b");
        shown("/home/1234567890123456789012345678901234567890/html/f", "",
              "1234567890123456789012345678901234567890/f", "1234567890123456789012345678901234567890");
        const auto refused = [](const char* page, const char* name, bool missing) {
            QTest::addRow("%s of %s", page, name) << page << name << ""
                                                  << "" << missing;
        };
        refused("/home/12345678901234567890123456789012345678901/html/f", "", false);
        refused("/etc/passwd", "App", false);
        refused("html/missing.html", "App", true);
        refused("http://localhost/cgi-bin/page/show?path=App/index.html", "App", true);
        refused("http://localhost/cgi-bin/page/show?path=App/index.html", "", true);
        refused("", "", true);
    }

    void PageAddresses()
    {
        QFETCH(QString, page);
        QFETCH(QString, name);
        QFETCH(QString, address);
        QFETCH(bool, missing);
        for (const char* form :
             {"App/html/index.html", "App/html/a b.html", "App/html/%1.html", "App/html/\u00e4.html",
              "A/html/b/html/c", "1234567890123456789012345678901234567890/html/f",
              "12345678901234567890123456789012345678901/html/f"}) {
            WriteFile("/home/" + QString::fromUtf8(form));
        }
        Server server;
        QCOMPARE(server.PathToURI(page, name),
                 address.isEmpty() ? QString() : "http://localhost/cgi-bin/page/show?path=" + address);
        QTEST(name, "nameAfter");
        const QString text("3 PathToURI Requested form doesn't exist ( \"%1\" ) errno: 2");
        QCOMPARE(TakeLogLines(), missing ? QStringList(text.arg(page)) : QStringList());
    }

    void EmptyRequestRestartsApplications()
    {
        Install("pay", 4002, "<run_on_boot>bin/app 60</run_on_boot>");
        Server server;
        Settle();
        const QList<pid_t> before = Children();
        QCOMPARE(before.size(), 1);
        QCOMPARE(StatusOf(before[0]).value("Uid").left(4), QByteArray("4002"));
        WriteFile("/run/sockets/pay/stale");

        QStringList signalled;
        connect(&server, &Server::OnTerminate, this, [&](const QVariantMap& map) {
            signalled << QStringLiteral("OnTerminate %1").arg(map.size());
        });
        connect(&server, &Server::OnStarted, this,
                [&](const QVariantMap& map) { signalled << QStringLiteral("OnStarted %1").arg(map.size()); });
        QCOMPARE(server.Start({}), QVariantMap({{"return", true}}));
        QVERIFY(!QFileInfo::exists("/run/sockets/pay/stale"));
        QCOMPARE(signalled, QStringList());
        QCOMPARE(Children(), before);
        Settle();
        QCOMPARE(signalled, QStringList({"OnTerminate 0", "OnStarted 0"}));
        QCOMPARE(Children().size(), 1);
        QVERIFY(Children() != before);
    }

    void BootSequence_data()
    {
        Columns<QVariantMap, QString, QString, QStringList>("applications", "page", "defaultCgi", "log");
        const QString show = "<show_on_boot>html/boot.html</show_on_boot>";
        const QString cgi = "<cgi_bin_default>true</cgi_bin_default>";
        const QString payBoot = "http://localhost/cgi-bin/page/show?path=pay/boot.html";
        const auto row = [](const char* name, const QVariantMap& applications, const QString& page,
                            const QString& defaultCgi = QString(),
                            const QStringList& log = {}) { Row(name, applications, page, defaultCgi, log); };
        row("nothing", {}, kNoApps);
        row("no default application", {{"pay", ""}}, kNoApps);
        row("default application", {{"desktop", ""}, {"pay", ""}}, kDesktop);
        row("shown on boot", {{"desktop", ""}, {"pay", show}}, payBoot);
        row("two shown on boot", {{"desktop", ""}, {"pay", show}, {"shop", show}}, kDesktop);
        row("two shown on boot, no default", {{"pay", show}, {"shop", show}}, kNoApps);
        row("missing form", {{"pay", "<show_on_boot>html/none</show_on_boot>"}}, "", {},
            {"3 PathToURI Requested form doesn't exist ( \"/home/pay/html/none\" ) errno: 2"});
        row("default CGI", {{"pay", cgi}, {"shop", ""}}, kNoApps, "/home/pay/cgi-bin");
        row("two default CGIs", {{"pay", cgi}, {"shop", cgi}}, kNoApps, {},
            {"3 StartApplication Multiple applications have <cgi_bin_default>true</cgi_bin_default> "
             "configured. Only one is allowed."});
        row("one that does not start",
            {{"pay", show + cgi + "<run_on_boot>bin/none</run_on_boot>"}, {"shop", show}},
            "http://localhost/cgi-bin/page/show?path=shop/boot.html", "/home/pay/cgi-bin",
            {Error("StartProcess", "Start: Failed to execute process (No such file or directory) 2"),
             Error("StartProcess", "Start: Failed to execute child (No such file or directory)"),
             "3 StartApplication Failed to start application  \"pay\""});
    }

    void BootSequence()
    {
        QFETCH(QVariantMap, applications);
        unsigned id = 4001;
        for (auto it = applications.begin(); it != applications.end(); ++it) {
            Install(it.key(), id++, it.value().toByteArray());
        }
        MakeDirectory("/run/www");
        MakeLink("/home/old/cgi-bin", kDefaultCgi);
        Server server;
        QFETCH(QString, page);
        QCOMPARE(Settle(), QStringList(page));
        QTEST(QFile::symLinkTarget(kDefaultCgi), "defaultCgi");
        QTEST(TakeLogLines(), "log");
    }

    void ShowOnceFormReplacesTheBoot()
    {
        Install("pay", 4002, "<run_on_boot>bin/app 60</run_on_boot><cgi_bin_default>true</cgi_bin_default>");
        WriteFile(kOnce);
        Server server;
        QSignalSpy started(&server, &Server::OnStarted);
        QSignalSpy terminated(&server, &Server::OnTerminate);
        QVERIFY(server.HasShowOnceForm());
        QCOMPARE(Settle(), QStringList("http://localhost/cgi-bin/page/show?path=platform/show_once.html"));
        QCOMPARE(started.size() + terminated.size(), 0);
        QCOMPARE(Children(), QList<pid_t>());
        QVERIFY(!QFileInfo(kDefaultCgi).isSymLink());
        emit m_browser.loadCompleted(true);
        QTRY_VERIFY(!server.HasShowOnceForm());
    }

    void DefaultFormIsShown()
    {
        Server server;
        Settle();
        QCOMPARE(server.Start({{"default", true}}), QVariantMap());
        QCOMPARE(Settle(), QStringList(kNoApps));
        Install("desktop", 4001);
        server.Enumerate();
        QVariantMap request = Request("desktop", "app");
        request.insert("default", true);
        QCOMPARE(server.Start(request), QVariantMap({{"errorCode", 0}}));
        QCOMPARE(Settle(), QStringList(kDesktop));
        QCOMPARE(Children().size(), 1);
        request.insert("default", false);
        server.Start(request);
        QCOMPARE(Settle(), QStringList());
    }

    void LaunchChecks_data()
    {
        Columns<QString, QString, QString>("application", "binary", "text");
        const auto row = [](const char* application, const char* binary, const char* text) {
            QTest::addRow("%s: %s", application, binary) << application << binary << text;
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
        row("pay", "", "Failed to start /home/pay/bin 60 binary");
        row("pay", "broken", "Failed to start /home/pay/bin/broken 60 binary");
    }

    void LaunchChecks()
    {
        QFETCH(QString, application);
        QFETCH(QString, binary);
        QFETCH(QString, text);
        Install("pay", 4002);
        Install("rooted", 0);
        MakeDirectory("/home/nobin", 4005, 4005);
        WriteFile("/home/pay/bin/plain");
        WriteFile("/home/pay/bin/broken", "#!/none\n", 0, 0, 0755);
        MakeLink("/bin/sleep", "/home/pay/bin/out");
        MakeLink("/none", "/home/pay/bin/dangling");
        CopyProgram("/bin/sleep", "/home/rooted/bin/mixed", 4002, 0);
        Server server;
        Settle();
        QCOMPARE(server.Start(Request(application, binary)),
                 QVariantMap({{"errorCode", -1}, {"errorText", text}}));
        QCOMPARE(TakeLogLines().last(), Error("StartApplicationBinary", text));
        QCOMPARE(Settle(), QStringList());
    }

    void LaunchIdentity_data()
    {
        Columns<QString, QByteArray, QByteArray>("binary", "uid", "path");
        QTest::newRow("root's program") << "app" << QByteArray("4002") << QByteArray("/home/pay/bin/app");
        QTest::newRow("another's program")
            << "shop" << QByteArray("4003") << QByteArray("/home/pay/bin/shop");
        QTest::newRow("link inside") << "sub/link" << QByteArray("4003") << QByteArray("/home/pay/bin/shop");
        QTest::newRow("prefix without a slash")
            << "../bin2/app" << QByteArray("4002") << QByteArray("/home/pay/bin2/app");
    }

    void LaunchIdentity()
    {
        QFETCH(QString, binary);
        QFETCH(QByteArray, uid);
        QFETCH(QByteArray, path);
        Install("pay", 4002);
        CopyProgram("/bin/sleep", "/home/pay/bin/shop", 4003, 4003);
        CopyProgram("/bin/sleep", "/home/pay/bin2/app");
        MakeLink("../shop", "/home/pay/bin/sub/link");
        Server server;
        Settle();
        QVERIFY(server.Enumerate().first().value("fastCgi").toBool());
        QCOMPARE(server.Start(Request("pay", binary)), QVariantMap({{"errorCode", 0}}));
        const pid_t pid = Children().value(0);
        QCOMPARE(EntriesOf(pid, "cmdline"), QList<QByteArray>({path, "60"}));
        QCOMPARE(StatusOf(pid).value("Uid"), uid + ' ' + uid + ' ' + uid + ' ' + uid);
        QCOMPARE(StatusOf(pid).value("Gid"), uid + ' ' + uid + ' ' + uid + ' ' + uid);
        const QList<QByteArray> environment = EntriesOf(pid, "environ");
        QVERIFY(environment.contains("USER=pay") && environment.contains("APP_NAME=pay"));
        QVERIFY(!environment.contains("APP_FASTCGI_SOCKET=/var/run/sockets/pay/fcgi"));
        QCOMPARE(TakeLogLines(), QStringList());
    }

    void ExceptionsDoNotEscape()
    {
        for (const char* name : {"a", "b", "c"}) {
            Install(name, 4002);
        }
        Server server;
        Settle();
        const auto unexpected = [](const char* function) {
            return QStringList(QStringLiteral("3 %1 Unexpected exception").arg(function));
        };
        {
            const FailingCall failure("getpwuid", FailingCall::kThrow, 2);
            QCOMPARE(server.Enumerate().size(), 2);
            QCOMPARE(TakeLogLines(), unexpected("Enumerate"));
        }
        {
            const FailingCall failure("read", FailingCall::kThrow);
            QCOMPARE(server.Start(Request("a", "app")), QVariantMap());
            QCOMPARE(TakeLogLines(), unexpected("Start"));
            // Nobody has waited for the program, which is to be ended with the others.
            QTRY_COMPARE(EntriesOf(Children().value(0), "cmdline").value(0), QByteArray("/home/a/bin/app"));
        }
        const auto fail = [] { throw std::bad_alloc(); };
        const QMetaObject::Connection started = connect(&server, &Server::OnStarted, this, fail);
        server.StartApplication();
        disconnect(started);
        QCOMPARE(TakeLogLines(), unexpected("StartApplication"));
        connect(&server, &Server::OnTerminate, this, fail);
        server.Terminate();
        QCOMPARE(TakeLogLines(), unexpected("Terminate"));
    }

    void RestartStopsAndRebootsOnce()
    {
        Install("pay", 4002, "<run_on_boot>bin/app 60</run_on_boot>");
        Server server;
        Settle();
        QSignalSpy terminated(&server, &Server::OnTerminate);
        QElapsedTimer timer;
        timer.start();
        server.Restart("");
        server.Restart("tomorrow");
        QCOMPARE(Children().size(), 1);
        const QString scheduled = "6 Restart Terminal restart is scheduled";
        QCOMPARE(TakeLogLines(), QStringList({scheduled, scheduled}));
        QTRY_COMPARE(ReadFile(kCalls), QByteArray("reboot\n"));
        QVERIFY(timer.elapsed() >= 2000);
        QCOMPARE(terminated.size(), 1);
        QCOMPARE(Children(), QList<pid_t>());
        QCOMPARE(TakeLogLines(),
                 QStringList("3 SendStopToApp curl  \"http://localhost/cgi-bin/pay/stop\" returned  7"));
        Settle();
        QCOMPARE(ReadFile(kCalls), QByteArray("reboot\n"));
    }

private:
    /// Runs the event loop until what is queued is done. \return the pages shown
    QStringList Settle() { return m_browser.TakePages(); }

    FakeBrowser m_browser;
};

KX_TEST_MAIN(ServerTest)
#include "tst_server.moc"
