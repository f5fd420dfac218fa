#include "server/dbus/Browser.h"

#include "Files.h"
#include "Fixture.h"
#include "TestBus.h"

namespace {

constexpr auto kFile = "/tmp/once.html";

} // namespace

class BrowserTest : public Fixture {
    Q_OBJECT

    static void ExpectRemoval(bool pending, bool success)
    {
        FakeBrowser fake;
        QVERIFY(pending || fake.Appear());
        Browser browser;
        browser.ShowPage("once", kFile);
        QVERIFY(!pending || fake.Appear());
        QCOMPARE(fake.TakePages(), QStringList("once"));
        for (int load = 0; load < 2; ++load) { // each one tries, until another page is asked for
            WriteFile(kFile);
            fake.TakePages();
            QVERIFY(QFileInfo::exists(kFile));
            emit fake.loadCompleted(success);
            QTRY_VERIFY(!QFileInfo::exists(kFile));
        }
        browser.ShowPage("other", {});
        WriteFile(kFile);
        emit fake.loadCompleted(success);
        fake.TakePages();
        QVERIFY(QFileInfo::exists(kFile));
    }

private slots:
    void initTestCase()
    {
        Fixture::initTestCase();
        OpenBus();
    }

    void LastPageAskedForWaitsForTheBrowser()
    {
        Browser browser;
        FakeBrowser fake;
        browser.ShowPage("first", {});
        browser.ShowPage("second", {});
        QVERIFY(fake.Appear());
        QCOMPARE(fake.TakePages(), QStringList("second"));
    }

    void BrowserThatReturnsGetsOnlyNewPages()
    {
        FakeBrowser fake;
        QVERIFY(fake.Appear());
        Browser browser;
        browser.ShowPage("http://localhost/a%20b", {});
        browser.ShowPage("", {});
        QCOMPARE(fake.TakePages(), QStringList({"http://localhost/a%20b", ""}));
        for (const QStringList& askedWhileAway : {QStringList(), QStringList("page")}) {
            QVERIFY(fake.Vanish());
            fake.TakePages();
            for (const QString& page : askedWhileAway) {
                browser.ShowPage(page, {});
            }
            QVERIFY(fake.Appear());
            QCOMPARE(fake.TakePages(), askedWhileAway);
        }
        browser.ShowPage("last", {});
        QCOMPARE(fake.TakePages(), QStringList("last"));
    }

    void FileIsRemovedWhenPageHasLoaded()
    {
        ExpectRemoval(false, true);
        ExpectRemoval(false, false);
        ExpectRemoval(true, true);
    }

    void UnreachableBrowserCostsThePage()
    {
        Browser browser;
        FakeBrowser fake;
        browser.ShowPage("page", {});
        browser.OnServiceRegisteredInternal("com.veltrasys.browser");
        QCOMPARE(TakeLogLines(),
                 QStringList("3 OnServiceRegisteredInternal Failed to connect to WebBrowser"));
        QVERIFY(fake.Appear());
        QCOMPARE(fake.TakePages(), QStringList());
        browser.OnServiceUnregisteredInternal("com.veltrasys.other");
        browser.ShowPage("page", {});
        browser.OnServiceRegisteredInternal("com.veltrasys.other");
        QCOMPARE(fake.TakePages(), QStringList("page"));
    }
};

KX_TEST_MAIN(BrowserTest)
#include "tst_browser.moc"
