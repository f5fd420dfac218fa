#include "DaemonFixture.h"
#include "WebBrowserProxy.h"
#include "WebServer.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QImage>

#include <csignal>
#include <memory>

using kxtest::DaemonFixture;
using kxtest::InstallApplication;

namespace {

const QString kBrowser = "com.veltrasys.browser";
const QString kSim = "/usr/libexec/kx-sim/";
const QString kShow = "http://localhost/cgi-bin/page/show?path=";

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
    auto request = QDBusMessage::createMethodCall(kBrowser, "/Desk", "com.veltrasys.browser.Desk", method);
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
    void initTestCase()
    {
        RegisterVectorOfPairSS();
        QDir().mkpath("/run/www");
        QVERIFY(kxtest::StartWebServer(m_web, kSim + "lighttpd.conf"));
    }

    void init()
    {
        kxtest::RemoveApplications();
        InstallApplication("desktop", 4001, 4001, {}, {{"html/index.html", kDesktop}});
        m_screen.start(kSim + "screen", QStringList());
        KX_TRY_VERIFY(IsOnBus());
        m_daemon = std::make_unique<DaemonFixture>();
        m_browser = std::make_unique<WebBrowserProxy>(kBrowser, "/", QDBusConnection::systemBus(), nullptr);
    }

    void cleanup()
    {
        m_daemon.reset();
        m_screen.kill();
        m_screen.waitForFinished();
        KX_TRY_VERIFY(!IsOnBus());
    }

    void ShowsThePage()
    {
        QVERIFY(m_daemon->Start() && Shows("desktop/index.html", "sum 42"));
        const QVariantMap page = Await(m_browser->GetUrl());
        QCOMPARE(page.value("application").toString(), "desktop");
        QCOMPARE(page.value("title").toString(), "Desk");

        const QString file = "/tmp/screen.png";
        QVERIFY(AskDesk("Screenshot", file));
        const QImage picture(file);
        QCOMPARE(picture.size(), QSize(320, 480));
        // The page's own ground, and letters on it.
        QCOMPARE(picture.pixelColor(310, 470), QColor(0x14, 0x32, 0x4f));
        QVERIFY(ColoursOf(picture) > 10);

        // An error page is on the screen, too, and is the page of the application that was asked for.
        QSignalSpy completed(m_browser.get(), &WebBrowserProxy::loadCompleted);
        QCOMPARE(Await(m_browser->ShowPage(kShow + "pay/none.html")), 0);
        KX_TRY_COMPARE(completed.size(), 1);
        QCOMPARE(completed.first().first(), QVariant(false));
        QCOMPARE(Await(m_browser->GetUrl()).value("application").toString(), QString("pay"));
    }

    void RefusesWhatIsNoPage()
    {
        QSignalSpy completed(m_browser.get(), &WebBrowserProxy::loadCompleted);
        for (const auto* address : {"", "file:///etc/passwd", "javascript:1", "not an address"}) {
            QCOMPARE(Await(m_browser->ShowPage(QString::fromLatin1(address))), -1);
        }
        KX_TRY_COMPARE(completed.size(), 4);
        QVERIFY(!completed.last().first().toBool());
        QCOMPARE(Source(), QString());
        QCOMPARE(Url(), QString());
        QCOMPARE(Await(m_browser->UpdatePage("<page/>", true)), -1);
        QVERIFY(!AskDesk("Screenshot", "/tmp/none.png"));
    }

    void ChangesThePage_data()
    {
        const Table<QString, int, QString> row;
        row("text", "<page><x id='state'>a &lt; b</x></page>", 0, "class=\"open\">a &lt; b</p>");
        row("attribute", "<page><x id='state' attribute='class'>paid</x></page>", 0,
            "class=\"paid\">waiting");
        row("two", "<p><x id='state'>one</x><x id='sum'>two</x></p>", 0, ">two</h1>");
        row("one is missing", "<p><x id='none'>one</x><x id='state'>two</x></p>", -1, ">two</p>");
        row("no id", "<page><x>text</x></page>", -1, ">waiting<");
        row("not well-formed", "<page><x id='state'>text</page>", -1, ">waiting<");
        row("two roots", "<page><x id='state'>text</x></page><page/>", -1, ">waiting<");
        row("nested", "<page><x id='state'><b/></x></page>", -1, ">waiting<");
    }

    void ChangesThePage()
    {
        const auto [xml, result, expected] = FetchRow<QString, int, QString>();
        QVERIFY(m_daemon->Start() && Shows("desktop/index.html", "sum 42"));
        QCOMPARE(Await(m_browser->UpdatePage(xml, true)), result);
        QVERIFY2(Source().contains(expected), qPrintable(Source()));
    }

    void TalksWithThePage()
    {
        QVERIFY(m_daemon->Start() && Shows("desktop/index.html", "sum 42"));
        QSignalSpy completed(m_browser.get(), &WebBrowserProxy::loadCompleted);
        QSignalSpy events(m_browser.get(), &WebBrowserProxy::PageEvent);
        QCOMPARE(Await(m_browser->ShowPage(kShow + "desktop/index.html", {{"key", "a \"value\""}})), 0);
        KX_TRY_COMPARE(completed.size(), 1);
        QCOMPARE(completed.first().first(), QVariant(true));
        QVERIFY(AskDesk("Touch", "#tell"));
        KX_TRY_COMPARE(events.size(), 1);
        QCOMPARE(events.takeFirst().first().toMap(), QVariantMap({{"name", "paid"}, {"key", "a \"value\""}}));

        QCOMPARE(Await(m_browser->ReloadPrompts()), -1);
        QCOMPARE(Await(m_browser->PromptLabelButton("<prompt/>")), -1);
        QCOMPARE(Await(m_browser->PromptLabelButton(
                     "<prompt><label>Insert card</label><button>Cancel</button></prompt>")),
                 0);
        QVERIFY(Source().contains("Insert card"));
        QVERIFY(AskDesk("Touch", "#kx-prompt button"));
        KX_TRY_COMPARE(events.size(), 1);
        QCOMPARE(events.first().first().toMap().value("button").toString(), "Cancel");
        QVERIFY(!Source().contains("Insert card"));
        QCOMPARE(Await(m_browser->ReloadPrompts()), 0);
        QVERIFY(Source().contains("Insert card"));
    }

    void PlaysVideoOverThePage()
    {
        QVERIFY(m_daemon->Start() && Shows("desktop/index.html", "sum 42"));
        QSignalSpy events(m_browser.get(), &WebBrowserProxy::PageEvent);
        QCOMPARE(Await(m_browser->StopVideo()), -1);
        QCOMPARE(Await(m_browser->PlayVideo("file:///etc/passwd")), -1);
        QCOMPARE(Await(m_browser->PlayVideo("http://localhost/html/desktop/none.webm")), 0);
        // There is no such video.
        KX_TRY_COMPARE(events.size(), 1);
        QCOMPARE(events.first().first().toMap().value("state").toString(), "error");
        QVERIFY(Source().contains("<video"));
        QCOMPARE(Await(m_browser->StopVideo()), 0);
        QVERIFY(!Source().contains("<video"));
    }

private:
    QString Url() { return Await(m_browser->GetUrl()).value("url").toString(); }
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

QTEST_GUILESS_MAIN(ScreenTest)
#include "tst_screen.moc"
