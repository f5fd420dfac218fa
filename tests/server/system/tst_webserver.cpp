#include "Terminal.h"

namespace {

const QString kConf = "/etc/lighttpd/lighttpd.conf";
const QString kCaching = "/etc/lighttpd/caching.conf";
const QString kBuffering = "/etc/lighttpd/buffer-resp.conf";
const QString kRestart = "lighthttpd restart";
const QString kBrowserRestart = "35-browser restart";

/// The files of the platform's image.
const Files kImage{{kConf + ".HTTP", "http"},
                   {kConf + ".HTTPS", "https"},
                   {"/etc/lighttpd/enable_cache.conf", "cache"},
                   {"/etc/lighttpd/disable_cache.conf", "no cache"},
                   {kConf, QByteArray("-> /etc/lighttpd/lighttpd.conf.HTTP")},
                   {kCaching, QByteArray("-> /etc/lighttpd/enable_cache.conf")}};

Case Accepted(const QVariantMap& args, const Files& after)
{
    return {args, {}, {{"return", 0}, {"response", "OK"}}, {}, {}, after};
}

Case Refused(const QVariantMap& args, const QString& text, const Files& before, const Files& after)
{
    return {args, before, {{"return", -1}, {"response", text}}, {}, {"3 DoLighttpdRestart " + text}, after};
}

} // namespace

class WebServerTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        m_terminal.Reset();
        Terminal::Create(kImage);
    }
    void Links_data();
    void Links();
    void OnlyAcceptedCallsRestart();
    void BrowserFollowsCachingOnce();

private:
    Terminal m_terminal;
};

void WebServerTest::Links_data()
{
    QTest::addColumn<Case>("testCase");

    QTest::newRow("nothing asked for") << Accepted({}, kImage);
    QTest::newRow("other spelling of the key") << Accepted({{"newConf", "HTTPS"}}, kImage);
    QTest::newRow("HTTPS") << Accepted({{"newconf", "HTTPS"}},
                                       {{kConf, "-> /etc/lighttpd/lighttpd.conf.HTTPS"}});
    QTest::newRow("all") << Accepted({{"newconf", "HTTP"}, {"caching", "off"}, {"buffer-resp", "on"}},
                                     {{kConf, "-> /etc/lighttpd/lighttpd.conf.HTTP"},
                                      {kCaching, "-> /etc/lighttpd/disable_cache.conf"},
                                      {kBuffering, "-> /etc/lighttpd/buffer-resp-on.conf"}});
    QTest::newRow("on and off") << Accepted({{"caching", "on"}, {"buffer-resp", "off"}},
                                            {{kCaching, "-> /etc/lighttpd/enable_cache.conf"},
                                             {kBuffering, "-> /etc/lighttpd/buffer-resp-off.conf"}});

    QTest::newRow("protocol") << Refused({{"newconf", "https"}}, "Invalid protocol: https", {}, kImage);
    QTest::newRow("caching") << Refused({{"caching", "enable"}}, "Invalid caching status: enable", {},
                                        kImage);
    QTest::newRow("buffering") << Refused({{"buffer-resp", ""}}, "Invalid buffer-resp value: ", {}, kImage);
    QTest::newRow("earlier link stays changed")
        << Refused({{"newconf", "HTTPS"}, {"caching", "ON"}}, "Invalid caching status: ON", {},
                   {{kConf, "-> /etc/lighttpd/lighttpd.conf.HTTPS"}});
    QTest::newRow("long value is cut") << Refused({{"newconf", QByteArray(1'000'000, 'x')}},
                                                  "Invalid protocol: " + QString(65'536, 'x'), {}, kImage);
    const Files dangling{{kConf, "-> /etc/lighttpd/none"}};
    QTest::newRow("dangling link") << Refused({{"newconf", "HTTPS"}}, "Symlink failed: File exists", dangling,
                                              dangling);
    QTest::newRow("folder in its place") << Refused({{"newconf", "HTTPS"}}, "Unlink failed: Is a directory",
                                                    {{kConf, {}}, {kConf + "/file", ""}}, {});
}

void WebServerTest::Links()
{
    QFETCH(Case, testCase);
    m_terminal.Run(97, testCase);
}

void WebServerTest::OnlyAcceptedCallsRestart()
{
    core::system::Server& server = m_terminal.Server();
    server.SystemCall(97, {{"newconf", "HTTPS"}, {"caching", "?"}});
    server.SystemCall(97, {});
    QElapsedTimer since;
    since.start();
    server.SystemCall(97, {});
    QVERIFY(Terminal::TakeCalls().isEmpty());
    QStringList calls;
    QTRY_VERIFY((calls += Terminal::TakeCalls()).size() >= 2);
    QVERIFY(since.elapsed() >= 499);
    QCOMPARE(calls, (QStringList{kRestart, kRestart}));
}

void WebServerTest::BrowserFollowsCachingOnce()
{
    core::system::Server& server = m_terminal.Server();
    const auto restart = [&](const QVariantMap& args, const QByteArray& webStatus = "0",
                             const QByteArray& browserStatus = "0") {
        Terminal::Create(
            {{Answer("lighthttpd.status"), webStatus}, {Answer("35-browser.status"), browserStatus}});
        server.SystemCall(97, args);
        QMetaObject::invokeMethod(&server, "OnRestartLighttpdTimer");
        return Terminal::TakeCalls();
    };
    const QStringList both{kRestart, kBrowserRestart};
    QCOMPARE(restart({{"caching", "off"}}, "1"), QStringList(kRestart));
    Terminal::CompareLog({"3 OnRestartLighttpdTimer /etc/rc.d/init.d/lighthttpd restart returned  1"});
    QCOMPARE(restart({}, "0", "2"), both);
    Terminal::CompareLog({"3 OnRestartLighttpdTimer /etc/platform/35-browser restart returned  2"});
    QCOMPARE(restart({}), QStringList(kRestart));
    QCOMPARE(restart({{"caching", "on"}}), QStringList(kRestart));
    QCOMPARE(restart({{"caching", "off"}}), both);
}

KX_SYSTEM_TEST_MAIN(WebServerTest)
#include "tst_webserver.moc"
