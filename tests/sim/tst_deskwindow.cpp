#include "BrowserAdaptor.h"
#include "BrowserService.h"
#include "DaemonFixture.h"
#include "DeskWindow.h"
#include "WebServer.h"
#include "server/dbus/VectorOfPairSS.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDir>
#include <QPushButton>

namespace {

/// Its title is what was typed and the name of the last key.
const QByteArray kForm = "<!DOCTYPE html><title>form</title><input id='amount' autofocus><script>"
                         "const amount = document.getElementById('amount');"
                         "document.onkeyup = e => { amount.focus();"
                         " document.title = amount.value + ' ' + e.key; }; amount.focus();</script>";

QByteArray PageCalled(const QByteArray& title)
{
    return "<!DOCTYPE html><title>" + title + "</title>";
}

} // namespace

/// The keys around the screen, pressed as a person does.
class DeskWindowTest : public QObject {
    Q_OBJECT

private slots:
    void KeysReachTheApplicationsAndTheirPages();

private:
    static void Press(const DeskWindow& window, const QString& caption);
};

void DeskWindowTest::Press(const DeskWindow& window, const QString& caption)
{
    for (auto* button : window.findChildren<QPushButton*>()) {
        if (button->text() == caption) {
            QTest::mouseClick(button, Qt::LeftButton);
            return;
        }
    }
    QFAIL(qPrintable("no key " + caption));
}

void DeskWindowTest::KeysReachTheApplicationsAndTheirPages()
{
    kxtest::InstallApplication("desktop", 4001, 4001,
                               "<application><home_button>html/index.html</home_button></application>",
                               {{"html/index.html", PageCalled("desk")}});
    kxtest::InstallApplication(
        "pay", 4002, 4002,
        "<application><home_button>html/home.html</home_button><desktop_item title='Pay' "
        "icon_position='1'>html/form.html</desktop_item></application>",
        {{"html/form.html", kForm}, {"html/home.html", PageCalled("home of pay")}});
    QDir().mkpath("/run/www");
    QProcess web;
    QVERIFY(kxtest::StartWebServer(web, "/usr/libexec/kx-sim/lighttpd.conf"));

    WebView view;
    view.setFixedSize(320, 480);
    BrowserService service(view);
    new BrowserAdaptor(&service);
    QVERIFY(QDBusConnection::systemBus().registerObject("/", &service));
    QVERIFY(QDBusConnection::systemBus().registerService("com.veltrasys.browser"));
    DeskWindow window(view, service);
    window.show();
    kxtest::DaemonFixture daemon;
    QVERIFY(daemon.Start());
    KX_TRY_COMPARE(view.title(), QString("desk"));
    KX_TRY_VERIFY(window.findChildren<QPushButton*>().size() == 17);

    Press(window, "Pay");
    KX_TRY_COMPARE(view.title(), QString("form"));
    for (const char* key : {"1", "2", ".", "5", "7", "Clear", "0", "Enter"}) {
        Press(window, key);
    }
    KX_TRY_COMPARE(view.title(), QString("12.50 Enter"));
    Press(window, "Cancel");
    KX_TRY_COMPARE(view.title(), QString("12.50 Escape"));
    Press(window, "Home");
    KX_TRY_COMPARE(view.title(), QString("home of pay"));

    QCOMPARE(daemon.Stop(), 0);
    web.terminate();
    QVERIFY(web.waitForFinished());
}

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    qputenv("QT_QUICK_BACKEND", "software");
    qputenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --no-first-run");
    QApplication application(argc, argv);
    RegisterVectorOfPairSS();
    DeskWindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_deskwindow.moc"
