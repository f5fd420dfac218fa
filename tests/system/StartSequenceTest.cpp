#include "DaemonFixture.h"
#include "FakeBrowser.h"

#include <QDBusPendingCallWatcher>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <memory>

using kxtest::ContentOf;
using kxtest::DaemonFixture;
using kxtest::FakeBrowser;
using kxtest::IdleProgram;
using kxtest::InstallApplication;
using kxtest::ProcessesOf;
using kxtest::Script;

namespace {

const QString kShow = QStringLiteral("http://localhost/cgi-bin/page/show?path=");
const QByteArray kIdleAtBoot = "<application><run_on_boot>bin/idle 1000</run_on_boot></application>";
const QString kIdle = QStringLiteral("/home/pay/bin/idle");

/// A program of the system under any identity; no child of the daemon.
class ForeignProcess {
public:
    ForeignProcess(uint uid, uint gid, bool stubborn)
    {
        const QString command = QStringLiteral("%1 exec sleep 1000").arg(stubborn ? "trap '' TERM;" : "");
        m_process.start("setpriv", {"--reuid", QString::number(uid), "--regid", QString::number(gid),
                                    "--clear-groups", "sh", "-c", command});
        m_process.waitForStarted();
        const QString name = QStringLiteral("/proc/%1/comm").arg(m_process.processId());
        kxtest::WaitFor([&] { return ContentOf(name) == "sleep\n"; });
    }
    ~ForeignProcess()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    /// \return the signal that ended it, 0 while it runs
    int Signal()
    {
        QCoreApplication::processEvents();
        return m_process.state() == QProcess::NotRunning ? m_process.exitCode() : 0;
    }

private:
    QProcess m_process;
};

} // namespace

/// What a start of the terminal does: stop, start, show the first page.
class StartSequenceTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void PreparesAnApplicationAtBoot();
    void GoesOnAfterAFailure();
    void AnswersFirst();
    void Terminates_data();
    void Terminates();
    void ChoosesTheFirstPage_data();
    void ChoosesTheFirstPage();
    void LinksOneDefaultCgi_data();
    void LinksOneDefaultCgi();
    void ShowsAPageOnce();
    void FollowsTheBrowser();

private:
    std::unique_ptr<DaemonFixture> m_daemon;
};

void StartSequenceTest::init()
{
    kxtest::RemoveApplications();
    m_daemon = std::make_unique<DaemonFixture>();
}

void StartSequenceTest::cleanup()
{
    if (m_daemon->IsRunning()) {
        m_daemon->Applications().Terminate().waitForFinished();
        QCOMPARE(m_daemon->Stop(), 0);
    }
}

void StartSequenceTest::PreparesAnApplicationAtBoot()
{
    // Without a cgi-bin directory it serves FastCGI, on a socket in a directory of its own.
    InstallApplication("pay", 4002, 4002, kIdleAtBoot, {IdleProgram(), {"html/x.html", "x"}});
    QVERIFY(m_daemon->Start());
    KX_TRY_COMPARE(ProcessesOf(kIdle).size(), 1);
    const pid_t pid = ProcessesOf(kIdle).constFirst();
    const QString environment = QStringLiteral("/proc/%1/environ").arg(pid);
    QVERIFY(ContentOf(environment).split('\0').contains("APP_FASTCGI_SOCKET=/var/run/sockets/pay/fcgi"));

    struct stat sockets = {};
    QCOMPARE(stat("/var/run/sockets/pay", &sockets), 0);
    QCOMPARE(sockets.st_mode & 07777U, 0770U);
    QCOMPARE(sockets.st_uid, 4002U);
    for (const char* part : {"cgi-bin", "html", "files"}) {
        const QString link = QStringLiteral("/var/run/www/%1/pay").arg(part);
        QCOMPARE(QFileInfo(link).symLinkTarget(), QStringLiteral("/home/pay/%1").arg(part));
    }
}

void StartSequenceTest::GoesOnAfterAFailure()
{
    InstallApplication("broken", 4004, 4004, kIdleAtBoot); // has no such program
    InstallApplication("pay", 4002, 4002, kIdleAtBoot, {IdleProgram()});
    QVERIFY(m_daemon->Start());
    KX_TRY_COMPARE(ProcessesOf(kIdle).size(), 1);

    const auto child = m_daemon->WaitForRecord("Start: Failed to execute process");
    QCOMPARE(child.text,
             QStringLiteral("\"Start: Failed to execute process (No such file or directory) 2\""));
    const auto parent = m_daemon->WaitForRecord("Start: Failed to execute child");
    QCOMPARE(parent.text, QStringLiteral("\"Start: Failed to execute child (No such file or directory)\""));
    const auto server = m_daemon->WaitForRecord("Failed to start application");
    QCOMPARE(server.function, QStringLiteral("StartApplication"));
    QVERIFY(server.text.contains("\"broken\""));
    for (const auto& record : {child, parent, server}) {
        QCOMPARE(record.priority, QStringLiteral("err"));
        QVERIFY(record.line > 0);
    }
}

void StartSequenceTest::AnswersFirst()
{
    // A program that does not end on request holds the sequence up for a while.
    InstallApplication("pay", 4002, 4002, kIdleAtBoot,
                       {Script("bin/idle", "trap '' TERM\nexec /usr/bin/sleep 1000\n")});
    QVERIFY(m_daemon->Start());
    KX_TRY_COMPARE(ProcessesOf("/usr/bin/sleep").size(), 1);
    const pid_t before = ProcessesOf("/usr/bin/sleep").constFirst();

    QStringList events;
    const QObject scope; // of the connections
    const auto note = [&events](const char* event) {
        return [&events, event](const QVariantMap& data) {
            events.append(data.isEmpty() ? event : "not empty");
        };
    };
    connect(&m_daemon->Applications(), &ApplicationsProxy::OnTerminate, &scope, note("terminated"));
    connect(&m_daemon->Applications(), &ApplicationsProxy::OnStarted, &scope, note("started"));
    QDBusPendingReply<QVariantMap> reply = m_daemon->Applications().Start({});
    const QDBusPendingCallWatcher watcher(reply);
    connect(&watcher, &QDBusPendingCallWatcher::finished, &scope, [&events] { events.append("answered"); });

    KX_TRY_COMPARE(events, (QStringList{"answered", "terminated", "started"}));
    QCOMPARE(reply.value(), (QVariantMap{{"return", true}}));
    KX_TRY_COMPARE(ProcessesOf("/usr/bin/sleep").size(), 1);
    QVERIFY(ProcessesOf("/usr/bin/sleep").constFirst() != before);
}

void StartSequenceTest::Terminates_data()
{
    QTest::addColumn<uint>("uid");
    QTest::addColumn<uint>("gid");
    QTest::addColumn<bool>("stubborn");
    QTest::addColumn<int>("signal"); // that ends the process
    QTest::newRow("first ids") << 4000U << 4000U << false << SIGTERM;
    QTest::newRow("last ids") << 4999U << 4999U << false << SIGTERM;
    QTest::newRow("ignores the request") << 4001U << 4002U << true << SIGKILL;
    QTest::newRow("group below") << 4001U << 100U << false << 0;
    QTest::newRow("user below") << 3999U << 4000U << false << 0;
    QTest::newRow("user above") << 5000U << 4000U << false << 0;
    QTest::newRow("group above") << 4000U << 5000U << false << 0;
}

void StartSequenceTest::Terminates()
{
    QFETCH(uint, uid);
    QFETCH(uint, gid);
    QFETCH(bool, stubborn);
    QFETCH(int, signal);
    QVERIFY(m_daemon->Start());
    ForeignProcess other(uid, gid, stubborn);
    ForeignProcess application(4002, 4002, false);
    QSignalSpy terminated(&m_daemon->Applications(), &ApplicationsProxy::OnTerminate);

    m_daemon->Applications().Terminate();
    KX_TRY_COMPARE(terminated.size(), 1);
    KX_TRY_COMPARE(application.Signal(), SIGTERM);
    KX_TRY_COMPARE(other.Signal(), signal);
}

void StartSequenceTest::ChoosesTheFirstPage_data()
{
    QTest::addColumn<QString>("pay"); // their show_on_boot
    QTest::addColumn<QString>("shop");
    QTest::addColumn<QString>("defaultApplication");
    QTest::addColumn<QString>("page");
    QTest::newRow("nothing to show") << ""
                                     << ""
                                     << "" << kShow + "platform/misc/noapps.html";
    QTest::newRow("default") << ""
                             << ""
                             << "desktop" << kShow + "desktop/index.html";
    QTest::newRow("last default") << ""
                                  << ""
                                  << "systemutils" << kShow + "systemutils/index.html";
    QTest::newRow("one application's") << "html/a.html"
                                       << ""
                                       << "desktop" << kShow + "pay/a.html";
    QTest::newRow("they cancel each other") << "html/a.html"
                                            << "html/a.html"
                                            << "desktop" << kShow + "desktop/index.html";
    QTest::newRow("encoded") << "html/a b.html"
                             << ""
                             << "" << kShow + "pay/a%20b.html";
    QTest::newRow("missing form") << "html/none.html"
                                  << ""
                                  << "desktop"
                                  << "";
}

void StartSequenceTest::ChoosesTheFirstPage()
{
    QFETCH(QString, pay);
    QFETCH(QString, shop);
    QFETCH(QString, defaultApplication);
    QFETCH(QString, page);
    const auto conf = [](const QString& form) {
        return "<application><show_on_boot>" + form.toUtf8() + "</show_on_boot></application>";
    };
    InstallApplication("pay", 4002, 4002, conf(pay), {{"html/a.html", "a"}, {"html/a b.html", "b"}});
    InstallApplication("shop", 4003, 4003, conf(shop), {{"html/a.html", "a"}});
    if (!defaultApplication.isEmpty()) {
        InstallApplication(defaultApplication, 4001, 4001, {}, {{"html/index.html", "i"}});
    }
    FakeBrowser browser;
    QVERIFY(browser.Come());
    QVERIFY(m_daemon->Start());
    KX_TRY_COMPARE(browser.Pages(), QStringList{page});
    if (page.isEmpty()) {
        QCOMPARE(m_daemon->WaitForRecord("Requested form doesn't exist").text,
                 QStringLiteral("Requested form doesn't exist ( \"/home/pay/html/none.html\" ) errno: 2"));
    }
}

void StartSequenceTest::LinksOneDefaultCgi_data()
{
    QTest::addColumn<QByteArray>("shop");
    QTest::addColumn<QString>("target");
    QTest::newRow("one") << QByteArray("no") << "/home/pay/cgi-bin";
    QTest::newRow("two") << QByteArray("TRUE") << "";
}

void StartSequenceTest::LinksOneDefaultCgi()
{
    QFETCH(QByteArray, shop);
    QFETCH(QString, target);
    const auto conf = [](const QByteArray& value) {
        return "<application><cgi_bin_default>" + value + "</cgi_bin_default></application>";
    };
    InstallApplication("pay", 4002, 4002, conf("true"));
    InstallApplication("shop", 4003, 4003, conf(shop));
    QVERIFY(m_daemon->Start());
    QCOMPARE(QFileInfo("/var/run/www/cgi-bin-default").symLinkTarget(), target);
    if (target.isEmpty()) {
        const QString text =
            "Multiple applications have <cgi_bin_default>true</cgi_bin_default> configured. Only "
            "one is allowed.";
        QCOMPARE(m_daemon->WaitForRecord(text).text, text);
    }
}

void StartSequenceTest::ShowsAPageOnce()
{
    InstallApplication("platform", 0, 0, {}, {{"html/show_once.html", "once"}});
    InstallApplication("pay", 4002, 4002, kIdleAtBoot, {IdleProgram()});
    FakeBrowser browser;
    QVERIFY(browser.Come());
    QVERIFY(m_daemon->Start());
    KX_TRY_COMPARE(browser.Pages(), QStringList{kShow + "platform/show_once.html"});
    QVERIFY(ProcessesOf(kIdle).isEmpty());
    QVERIFY(QFileInfo::exists("/home/platform/html/show_once.html"));

    emit browser.loadCompleted(false);
    KX_TRY_VERIFY(!QFileInfo::exists("/home/platform/html/show_once.html"));
    // The next request starts what the page has held back.
    m_daemon->StartRequest({});
    KX_TRY_COMPARE(ProcessesOf(kIdle).size(), 1);
}

void StartSequenceTest::FollowsTheBrowser()
{
    InstallApplication("desktop", 4001, 4001, {}, {{"html/index.html", "i"}});
    InstallApplication("pay", 4002, 4002,
                       "<application><show_on_boot>html/a.html</show_on_boot></application>",
                       {{"html/a.html", "a"}});
    const QString index = kShow + "desktop/index.html";
    const QVariantMap showIndex{{"default", true}};
    QVERIFY(m_daemon->Start());
    // The page of the start sequence waits for the browser until a later one takes its place.
    QCOMPARE(m_daemon->StartRequest(showIndex), QVariantMap());

    FakeBrowser browser;
    QVERIFY(browser.Come());
    QStringList shown{index};
    KX_TRY_COMPARE(browser.Pages(), shown);

    browser.Go();
    QCOMPARE(m_daemon->StartRequest(showIndex), QVariantMap());
    QVERIFY(browser.Come());
    shown.append(index);
    KX_TRY_COMPARE(browser.Pages(), shown);

    // Nothing was asked for while it was away this time, so only what is asked for later is shown.
    browser.Go();
    QVERIFY(browser.Come());
    QVERIFY(m_daemon->WaitUntilServing());
    m_daemon->StartRequest({});
    shown.append(kShow + "pay/a.html");
    KX_TRY_COMPARE(browser.Pages(), shown);
}

QTEST_GUILESS_MAIN(StartSequenceTest)
#include "StartSequenceTest.moc"
