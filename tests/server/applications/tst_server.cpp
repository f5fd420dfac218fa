#include "server/applications/Server.h"

#include "FailingCall.h"
#include "Files.h"
#include "Fixture.h"
#include "Processes.h"
#include "TestBus.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <new>

using core::applications::Server;

namespace {

const QString kShow = "http://localhost/cgi-bin/page/show?path=";
const QString kNoApps = kShow + "platform/misc/noapps.html";
const QString kDesktop = kShow + "desktop/index.html";
constexpr auto kOnce = "/home/platform/html/show_once.html";
constexpr auto kDefaultCgi = "/var/run/www/cgi-bin-default";

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

/// Exchanges \a path with /home/evil/spare all the time, as the application "evil".
int Exchange(const char* path)
{
    if (setgid(4001) != 0 || setuid(4001) != 0) {
        return 1;
    }
    while (renameat2(AT_FDCWD, path, AT_FDCWD, "/home/evil/spare", RENAME_EXCHANGE) == 0) {
    }
    return 1;
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
        QCOMPARE(list.size(), 3);
        QCOMPARE(list[0].value("name").toString() + list[2].value("name").toString(), QString("brokenpay"));
        QCOMPARE(list[2].value("cacertPath").toString(), QString("/home/pay/ca"));
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

    void PageAddresses_data()
    {
        const Table<QString, QString, QString, QString, bool> row;
        const auto shown = [&](const char* page, const char* name, const char* address, const char* after) {
            row(page, page, name, address, after, false);
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
        const auto refused = [&](const char* page, const char* name, bool missing) {
            row(QByteArray(page) + " of " + name, page, name, "", "", missing);
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
        auto [page, name, address, nameAfter, missing] = FetchRow<QString, QString, QString, QString, bool>();
        for (const char* form :
             {"App/html/index.html", "App/html/a b.html", "App/html/%1.html", "App/html/\u00e4.html",
              "A/html/b/html/c", "1234567890123456789012345678901234567890/html/f",
              "12345678901234567890123456789012345678901/html/f"}) {
            WriteFile("/home/" + QString::fromUtf8(form));
        }
        Server server;
        QCOMPARE(server.PathToURI(page, name), address.isEmpty() ? QString() : kShow + address);
        QCOMPARE(name, nameAfter);
        const QString text("3 PathToURI Requested form doesn't exist ( \"%1\" ) errno: 2");
        QCOMPARE(TakeLogLines(), missing ? QStringList(text.arg(page)) : QStringList());
    }

    void BootSequence_data()
    {
        const Table<QVariantMap, QString, QString, QStringList> table;
        const QString show = "<show_on_boot>html/boot.html</show_on_boot>";
        const QString cgi = "<cgi_bin_default>true</cgi_bin_default>";
        const QString payBoot = kShow + "pay/boot.html";
        const auto row = [&](const char* name, const QVariantMap& applications, const QString& page,
                             const QString& defaultCgi = {}, const QStringList& log = {}) {
            table(name, applications, page, defaultCgi, log);
        };
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
            kShow + "shop/boot.html", "/home/pay/cgi-bin",
            {"3 StartProcess \"Start: Failed to execute process (No such file or directory) 2\"",
             "3 StartProcess \"Start: Failed to execute child (No such file or directory)\"",
             "3 StartApplication Failed to start application  \"pay\""});
    }

    void BootSequence()
    {
        const auto [applications, page, defaultCgi, log] =
            FetchRow<QVariantMap, QString, QString, QStringList>();
        unsigned id = 4001;
        for (auto it = applications.begin(); it != applications.end(); ++it) {
            Install(it.key(), id++, it.value().toByteArray());
        }
        MakeDirectory("/run/www");
        MakeLink("/home/old/cgi-bin", kDefaultCgi);
        Server server;
        QCOMPARE(Settle(), QStringList(page));
        QCOMPARE(QFile::symLinkTarget(kDefaultCgi), defaultCgi);
        QCOMPARE(TakeLogLines(), log);
    }

    void ShowOnceFormReplacesTheBoot()
    {
        Install("pay", 4002, "<run_on_boot>bin/app 60</run_on_boot><cgi_bin_default>true</cgi_bin_default>");
        WriteFile(kOnce);
        Server server;
        QSignalSpy started(&server, &Server::OnStarted);
        QSignalSpy terminated(&server, &Server::OnTerminate);
        QVERIFY(server.HasShowOnceForm());
        QCOMPARE(Settle(), QStringList(kShow + "platform/show_once.html"));
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

    void IdentityBelongsToTheProgramThatRuns_data()
    {
        const Table<QByteArray, QString> row;
        row("program exchanged", "/home/evil/bin/app", "/home/pay/bin/app");
        row("folder exchanged", "/home/evil/bin", "/home/pay/bin");
    }

    /// An application that exchanges what is in its home between two looks at it gets no other's identity.
    void IdentityBelongsToTheProgramThatRuns()
    {
        constexpr int kOfEach = 100;
        const auto [exchanged, other] = FetchRow<QByteArray, QString>();
        RemoveAll("/tmp/ran");
        MakeDirectory("/tmp/ran", 0, 0, 0777);
        CopyProgram("/usr/bin/mktemp", "/home/evil/bin/app", 4001, 4001);
        CopyProgram("/bin/true", "/home/pay/bin/app", 4002, 4002);
        MakeDirectory("/home/evil/bin", 4001, 4001);
        MakeDirectory("/home/evil", 4001, 4001);
        MakeLink(other, "/home/evil/spare", 4001);
        Server server;
        Settle();
        const pid_t exchange = fork();
        if (exchange == 0) {
            _exit(Exchange(exchanged));
        }
        // Refusals are quick, and may be all there is until the other process has its turn.
        const QDeadlineTimer patience(30'000);
        int started = 0;
        int refused = 0;
        while ((started < kOfEach || refused < kOfEach) && !patience.hasExpired()) {
            const QVariantMap result = server.StartApplicationBinary("evil", "app", "-p /tmp/ran");
            ++(result.value("errorCode").toInt() == 0 ? started : refused);
        }
        QCOMPARE(kill(exchange, SIGKILL), 0);
        int status = 0;
        QCOMPARE(waitpid(exchange, &status, 0), exchange);
        QVERIFY(WIFSIGNALED(status));
        while (waitpid(-1, nullptr, 0) > 0) {
        }
        const QFileInfoList files = QDir("/tmp/ran").entryInfoList(QDir::Files);
        QVERIFY(started >= kOfEach && refused >= kOfEach && !files.isEmpty());
        for (const QFileInfo& file : files) {
            QCOMPARE(file.ownerId(), 4001U);
        }
    }

    void ForeignProgramsLendNoIdentity_data()
    {
        const Table<QString, unsigned, QString> row;
        row("bin is the other's", "/home/pay/bin", 4001U, {});
        row("only the group is the other's", "/tmp/ran/group", 4001U, {});
        row("another file is executed", "/tmp/ran/a b", 4001U, "4001:4001 644");
        row("own programs elsewhere", "/tmp/ran/own", 4001U, "4001:4001 644");
        row("the link is root's", "/home/pay/bin", 0U, "4002:4002 644");
    }

    /// An application can make its bin a link to a directory that holds programs of another account.
    void ForeignProgramsLendNoIdentity()
    {
        const auto [bin, uid, proof] = FetchRow<QString, unsigned, QString>();
        RemoveAll("/tmp/ran");
        MakeDirectory("/tmp/ran", 0, 0, 0777);
        CopyProgram("/bin/touch", "/home/pay/bin/app", 4002, 4002);
        CopyProgram("/bin/touch", "/tmp/ran/a b/app", 4002, 4002);
        CopyProgram("/bin/touch", "/tmp/ran/a", 4001, 4001);
        CopyProgram("/bin/touch", "/tmp/ran/group/app", 4001, 4002);
        CopyProgram("/bin/touch", "/tmp/ran/own/app", 4001, 4001);
        MakeDirectory("/home/evil", uid, uid);
        MakeLink(bin, "/home/evil/bin", uid);
        Server server;
        Settle();
        const QVariantMap result = server.StartApplicationBinary("evil", "app", "/tmp/ran/proof");
        QCOMPARE(result.value("errorCode").toInt(), proof.isEmpty() ? -1 : 0);
        while (waitpid(-1, nullptr, 0) > 0) {
        }
        QCOMPARE(OwnerAndMode("/tmp/ran/proof"), proof);
        QCOMPARE(TakeLogLines().size(), proof.isEmpty() ? 1 : 0);
    }

    void ExceptionsDoNotEscape()
    {
        Install("a", 4002);
        Install("b", 4002);
        Install("c", 4999); // an id without an account, which is searched for
        Server server;
        Settle();
        const auto unexpected = [](const char* function) {
            return QStringList(QStringLiteral("3 %1 Unexpected exception").arg(function));
        };
        {
            const FailingCall failure("getpwuid", FailingCall::kThrow);
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

    void TwoRequestsAreOneRestart()
    {
        const auto reboots = [] { return ReadFile("/run/standins/calls").count("reboot\n"); };
        Server server;
        Settle();
        server.Restart("");
        server.Restart("tomorrow");
        QTRY_COMPARE(reboots(), 1);
        Settle();
        QCOMPARE(reboots(), 1);
    }

private:
    /// Runs the event loop until what is queued is done. \return the pages shown
    QStringList Settle() { return m_browser.TakePages(); }

    FakeBrowser m_browser;
};

KX_TEST_MAIN(ServerTest)
#include "tst_server.moc"
