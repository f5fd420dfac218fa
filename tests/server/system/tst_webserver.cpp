#include "SystemFixture.h"

namespace {

const QString kConf = "/etc/lighttpd/lighttpd.conf";
const QString kCaching = "/etc/lighttpd/caching.conf";
const QString kBuffering = "/etc/lighttpd/buffer-resp.conf";
const QString kRestart = "lighthttpd restart";
const QStringList kBothRestart{kRestart, "35-browser restart"};

/// The files of the platform's image.
const Files kImage{{kConf + ".HTTP", "http"},
                   {kConf + ".HTTPS", "https"},
                   {"/etc/lighttpd/enable_cache.conf", "cache"},
                   {"/etc/lighttpd/disable_cache.conf", "no cache"},
                   {kConf, "-> /etc/lighttpd/lighttpd.conf.HTTP"},
                   {kCaching, "-> /etc/lighttpd/enable_cache.conf"}};

} // namespace

class WebServerTest : public SystemFixture {
    Q_OBJECT

private slots:
    void init()
    {
        SystemFixture::init();
        Create(kImage);
    }

    void Links_data()
    {
        const Table<Case> row;
        const auto accepted = [&](const char* name, const QVariantMap& args, const Files& after) {
            row(name, {args, {}, {{"return", 0}, {"response", "OK"}}, {}, {}, after});
        };
        const Files https{{kConf, "-> /etc/lighttpd/lighttpd.conf.HTTPS"}};
        accepted("nothing asked for", {}, kImage);
        accepted("other spelling of the key", {{"newConf", "HTTPS"}}, kImage);
        accepted("HTTPS", {{"newconf", "HTTPS"}}, https);
        accepted("all", {{"newconf", "HTTP"}, {"caching", "off"}, {"buffer-resp", "on"}},
                 {{kConf, "-> /etc/lighttpd/lighttpd.conf.HTTP"},
                  {kCaching, "-> /etc/lighttpd/disable_cache.conf"},
                  {kBuffering, "-> /etc/lighttpd/buffer-resp-on.conf"}});
        accepted("on and off", {{"caching", "on"}, {"buffer-resp", "off"}},
                 {{kCaching, "-> /etc/lighttpd/enable_cache.conf"},
                  {kBuffering, "-> /etc/lighttpd/buffer-resp-off.conf"}});

        const auto refused = [&](const char* name, const QVariantMap& args, QString text,
                                 const Files& before = {}, const Files& after = kImage) {
            row(name, {args,
                       before,
                       {{"return", -1}, {"response", text}},
                       {},
                       {"3 DoLighttpdRestart " + text.replace(QRegExp("[\n\177]"), "?")},
                       after});
        };
        refused("protocol", {{"newconf", "https"}}, "Invalid protocol: https");
        refused("caching", {{"caching", "enable"}}, "Invalid caching status: enable");
        refused("buffering", {{"buffer-resp", ""}}, "Invalid buffer-resp value: ");
        refused("earlier link stays changed", {{"newconf", "HTTPS"}, {"caching", "ON"}},
                "Invalid caching status: ON", {}, https);
        refused("forged record", {{"newconf", "x\n<0>kernel: panic\177"}},
                "Invalid protocol: x\n<0>kernel: panic\177");
        refused("long value is cut", {{"newconf", QByteArray(1000000, 'x')}},
                "Invalid protocol: " + QString(65536, 'x'));
        const Files dangling{{kConf, "-> /etc/lighttpd/none"}};
        refused("dangling link", {{"newconf", "HTTPS"}}, "Symlink failed: File exists", dangling, dangling);
        refused("folder in its place", {{"newconf", "HTTPS"}}, "Unlink failed: Is a directory",
                {{kConf, {}}, {kConf + "/file", ""}}, {});
    }

    void Links() { RunCase(97); }

    void OnlyAcceptedCallsRestart()
    {
        Server().SystemCall(97, {{"newconf", "HTTPS"}, {"caching", "?"}});
        Server().SystemCall(97, {});
        QElapsedTimer since;
        since.start();
        Server().SystemCall(97, {});
        QVERIFY(TakeCalls().isEmpty());
        QStringList calls;
        QTRY_VERIFY((calls += TakeCalls()).size() >= 2);
        QVERIFY(since.elapsed() >= 499);
        QCOMPARE(calls, (QStringList{kRestart, kRestart}));
    }

    void BrowserFollowsCachingOnce()
    {
        // One after the other: whether the browser restarts depends on what came before.
        RestartAfter({{"caching", "off"}}, "1", "0", {kRestart},
                     {"3 OnRestartLighttpdTimer /etc/rc.d/init.d/lighthttpd restart returned  1"});
        RestartAfter({}, "0", "2", kBothRestart,
                     {"3 OnRestartLighttpdTimer /etc/platform/35-browser restart returned  2"});
        RestartAfter({}, "0", "0", {kRestart}, {});
        RestartAfter({{"caching", "on"}}, "0", "0", {kRestart}, {});
        RestartAfter({{"caching", "off"}}, "0", "0", kBothRestart, {});
    }

private:
    void RestartAfter(const QVariantMap& args, const QByteArray& webStatus, const QByteArray& browserStatus,
                      const QStringList& calls, const QStringList& log)
    {
        Create({{Answer("lighthttpd.status"), webStatus}, {Answer("35-browser.status"), browserStatus}});
        Server().SystemCall(97, args);
        QMetaObject::invokeMethod(&Server(), "OnRestartLighttpdTimer");
        CompareEffects({{}, {}, {}, calls, log});
    }
};

KX_TEST_MAIN(WebServerTest)
#include "tst_webserver.moc"
