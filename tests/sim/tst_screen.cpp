#include "DaemonFixture.h"
#include "WebBrowserProxy.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>

#include <csignal>
#include <memory>

using kxtest::DaemonFixture;
using kxtest::InstallApplication;

namespace {

const QString kBrowser = QStringLiteral("com.veltrasys.browser");
const QString kSim = QStringLiteral("/usr/libexec/kx-sim/");
const QString kShow = QStringLiteral("http://localhost/cgi-bin/page/show?path=");

/// The number is the work of the page's script, so that only an engine can have put it there.
const QByteArray kDesktop = "<!DOCTYPE html><title>Desk</title>"
                            "<body style='margin:0;background:#14324f;color:#fff'>"
                            "<h1 id='sum'></h1><p id='state' class='open'>waiting</p><input id='amount'>"
                            "<button id='tell'>Tell</button>"
                            "<script>document.getElementById('sum').textContent = 'sum ' + 6 * 7;"
                            "document.getElementById('tell').onclick = () =>"
                            " kx.event('paid', {key: kx.registry.key});</script></body>";

template<typename Result>
Result Await(QDBusPendingReply<Result> reply)
{
    reply.waitForFinished();
    return reply.isError() ? Result() : reply.value();
}

bool IsOnBus()
{
    return QDBusConnection::systemBus().interface()->isServiceRegistered(kBrowser);
}

bool AskDesk(const QString& method, const QString& argument)
{
    auto request = QDBusMessage::createMethodCall(kBrowser, QStringLiteral("/Desk"),
                                                  QStringLiteral("com.veltrasys.browser.Desk"), method);
    request.setArguments({argument});
    return QDBusReply<bool>(QDBusConnection::systemBus().call(request)).value();
}

int ColoursOf(const QImage& picture)
{
    QSet<QRgb> colours;
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            colours.insert(picture.pixel(x, y));
        }
    }
    return colours.size();
}

} // namespace

/// The desk terminal's browser service, in front of the real daemon and the real web server.
class ScreenTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void ShowsThePage();
    void DeletesTheShowOncePage();
    void ComesBackAfterACrash();
    void RefusesWhatIsNoPage();
    void ChangesThePage_data();
    void ChangesThePage();
    void TalksWithThePage();
    void PlaysVideoOverThePage();

private:
    void StartScreen();
    QString Url() { return Await(m_browser->GetUrl()).value(QStringLiteral("url")).toString(); }
    QString Source() { return Await(m_browser->QueryPage()); }
    bool Shows(const QString& page, const QString& text)
    {
        return kxtest::WaitFor([&] { return Url() == kShow + page && Source().contains(text); });
    }

    QProcess m_web;
    QProcess m_screen;
    std::unique_ptr<DaemonFixture> m_daemon;
    std::unique_ptr<WebBrowserProxy> m_browser;
};

void ScreenTest::initTestCase()
{
    RegisterVectorOfPairSS();
    QDir().mkpath(QStringLiteral("/run/www"));
    m_web.start(QStringLiteral("/usr/sbin/lighttpd"),
                {QStringLiteral("-D"), QStringLiteral("-f"), kSim + QStringLiteral("lighttpd.conf")});
    KX_TRY_VERIFY([] {
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"), 80);
        return socket.waitForConnected(100);
    }());
}

void ScreenTest::init()
{
    kxtest::RemoveApplications();
    InstallApplication(QStringLiteral("platform"), 0, 0);
    InstallApplication(QStringLiteral("desktop"), 4001, 4001, {},
                       {{QStringLiteral("html/index.html"), kDesktop}});
    StartScreen();
    m_daemon = std::make_unique<DaemonFixture>();
    m_browser = std::make_unique<WebBrowserProxy>(kBrowser, QStringLiteral("/"), QDBusConnection::systemBus(),
                                                  nullptr);
}

void ScreenTest::cleanup()
{
    m_daemon.reset();
    m_screen.kill();
    m_screen.waitForFinished();
    KX_TRY_VERIFY(!IsOnBus());
}

void ScreenTest::StartScreen()
{
    m_screen.start(kSim + QStringLiteral("screen"), QStringList());
    KX_TRY_VERIFY(IsOnBus());
}

void ScreenTest::ShowsThePage()
{
    QVERIFY(m_daemon->Start());
    QVERIFY(Shows(QStringLiteral("desktop/index.html"), QStringLiteral("sum 42")));
    const QVariantMap page = Await(m_browser->GetUrl());
    QCOMPARE(page.value(QStringLiteral("application")).toString(), QStringLiteral("desktop"));
    QCOMPARE(page.value(QStringLiteral("title")).toString(), QStringLiteral("Desk"));

    const QString file = QStringLiteral("/tmp/screen.png");
    QVERIFY(AskDesk(QStringLiteral("Screenshot"), file));
    const QImage picture(file);
    QCOMPARE(picture.size(), QSize(320, 480));
    // The page's own ground, and letters on it.
    QCOMPARE(picture.pixelColor(310, 470), QColor(0x14, 0x32, 0x4f));
    QVERIFY(ColoursOf(picture) > 10);

    // An error page is on the screen, too, and is the page of the application that was asked for.
    QSignalSpy completed(m_browser.get(), &WebBrowserProxy::loadCompleted);
    QCOMPARE(Await(m_browser->ShowPage(kShow + QStringLiteral("pay/none.html"))), 0);
    KX_TRY_COMPARE(completed.size(), 1);
    QCOMPARE(completed.first().first(), QVariant(false));
    QCOMPARE(Await(m_browser->GetUrl()).value(QStringLiteral("application")).toString(),
             QStringLiteral("pay"));
}

void ScreenTest::DeletesTheShowOncePage()
{
    const QString home = InstallApplication(QStringLiteral("platform"), 0, 0, {},
                                            {{QStringLiteral("html/show_once.html"), "<p>only once</p>"}});
    QVERIFY(m_daemon->Start());
    KX_TRY_VERIFY(!QFile::exists(home + QStringLiteral("/html/show_once.html")));
    // It was shown before it went.
    QVERIFY(Shows(QStringLiteral("platform/show_once.html"), QStringLiteral("only once")));
}

void ScreenTest::ComesBackAfterACrash()
{
    QVERIFY(m_daemon->Start());
    QVERIFY(Shows(QStringLiteral("desktop/index.html"), QStringLiteral("sum 42")));
    m_screen.kill();
    m_screen.waitForFinished();
    KX_TRY_VERIFY(!IsOnBus());

    // What is asked for while it is away is shown when it is back.
    m_daemon->StartRequest({{QStringLiteral("default"), true}});
    StartScreen();
    QVERIFY(Shows(QStringLiteral("desktop/index.html"), QStringLiteral("sum 42")));
}

void ScreenTest::RefusesWhatIsNoPage()
{
    QSignalSpy completed(m_browser.get(), &WebBrowserProxy::loadCompleted);
    for (const auto* address : {"", "file:///etc/passwd", "javascript:1", "not an address"}) {
        QCOMPARE(Await(m_browser->ShowPage(QString::fromLatin1(address))), -1);
    }
    KX_TRY_COMPARE(completed.size(), 4);
    QVERIFY(!completed.last().first().toBool());
    QCOMPARE(Source(), QString());
    QCOMPARE(Url(), QString());
    QCOMPARE(Await(m_browser->UpdatePage(QStringLiteral("<page/>"), true)), -1);
    QVERIFY(!AskDesk(QStringLiteral("Screenshot"), QStringLiteral("/tmp/none.png")));
}

void ScreenTest::ChangesThePage_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("expected");
    QTest::newRow("text") << "<page><x id='state'>a &lt; b</x></page>" << 0 << "class=\"open\">a &lt; b</p>";
    QTest::newRow("attribute") << "<page><x id='state' attribute='class'>paid</x></page>" << 0
                               << "class=\"paid\">waiting";
    QTest::newRow("two") << "<p><x id='state'>one</x><x id='sum'>two</x></p>" << 0 << ">two</h1>";
    QTest::newRow("one is missing") << "<p><x id='none'>one</x><x id='state'>two</x></p>" << -1 << ">two</p>";
    QTest::newRow("no id") << "<page><x>text</x></page>" << -1 << ">waiting<";
    QTest::newRow("not well-formed") << "<page><x id='state'>text</page>" << -1 << ">waiting<";
    QTest::newRow("two roots") << "<page><x id='state'>text</x></page><page/>" << -1 << ">waiting<";
    QTest::newRow("nested") << "<page><x id='state'><b/></x></page>" << -1 << ">waiting<";
}

void ScreenTest::ChangesThePage()
{
    QFETCH(QString, xml);
    QFETCH(int, result);
    QFETCH(QString, expected);
    QVERIFY(m_daemon->Start());
    QVERIFY(Shows(QStringLiteral("desktop/index.html"), QStringLiteral("sum 42")));
    QCOMPARE(Await(m_browser->UpdatePage(xml, true)), result);
    QVERIFY2(Source().contains(expected), qPrintable(Source()));
}

void ScreenTest::TalksWithThePage()
{
    QVERIFY(m_daemon->Start());
    QVERIFY(Shows(QStringLiteral("desktop/index.html"), QStringLiteral("sum 42")));
    QSignalSpy completed(m_browser.get(), &WebBrowserProxy::loadCompleted);
    QSignalSpy events(m_browser.get(), &WebBrowserProxy::PageEvent);
    QCOMPARE(Await(m_browser->ShowPage(kShow + QStringLiteral("desktop/index.html"),
                                       {{QStringLiteral("key"), QStringLiteral("a \"value\"")}})),
             0);
    KX_TRY_COMPARE(completed.size(), 1);
    QVERIFY(AskDesk(QStringLiteral("Touch"), QStringLiteral("#tell")));
    KX_TRY_COMPARE(events.size(), 1);
    QCOMPARE(events.takeFirst().first().toMap(),
             QVariantMap({{QStringLiteral("name"), QStringLiteral("paid")},
                          {QStringLiteral("key"), QStringLiteral("a \"value\"")}}));

    QCOMPARE(Await(m_browser->ReloadPrompts()), -1);
    QCOMPARE(Await(m_browser->PromptLabelButton(QStringLiteral("<prompt/>"))), -1);
    QCOMPARE(Await(m_browser->PromptLabelButton(
                 QStringLiteral("<prompt><label>Insert card</label><button>Cancel</button></prompt>"))),
             0);
    QVERIFY(Source().contains(QStringLiteral("Insert card")));
    QVERIFY(AskDesk(QStringLiteral("Touch"), QStringLiteral("#kx-prompt button")));
    KX_TRY_COMPARE(events.size(), 1);
    QCOMPARE(events.first().first().toMap().value(QStringLiteral("button")).toString(),
             QStringLiteral("Cancel"));
    QVERIFY(!Source().contains(QStringLiteral("Insert card")));
    QCOMPARE(Await(m_browser->ReloadPrompts()), 0);
    QVERIFY(Source().contains(QStringLiteral("Insert card")));
}

void ScreenTest::PlaysVideoOverThePage()
{
    QVERIFY(m_daemon->Start());
    QVERIFY(Shows(QStringLiteral("desktop/index.html"), QStringLiteral("sum 42")));
    QSignalSpy events(m_browser.get(), &WebBrowserProxy::PageEvent);
    QCOMPARE(Await(m_browser->StopVideo()), -1);
    QCOMPARE(Await(m_browser->PlayVideo(QStringLiteral("file:///etc/passwd"))), -1);
    QCOMPARE(Await(m_browser->PlayVideo(QStringLiteral("http://localhost/html/desktop/none.webm"))), 0);
    // There is no such video.
    KX_TRY_COMPARE(events.size(), 1);
    QCOMPARE(events.first().first().toMap().value(QStringLiteral("state")).toString(),
             QStringLiteral("error"));
    QVERIFY(Source().contains(QStringLiteral("<video")));
    QCOMPARE(Await(m_browser->StopVideo()), 0);
    QVERIFY(!Source().contains(QStringLiteral("<video")));
}

QTEST_GUILESS_MAIN(ScreenTest)
#include "tst_screen.moc"
