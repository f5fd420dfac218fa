// The terminal's screen: a browser engine behind the browser service, in a window with the terminal's keys
// when there is a display, out of sight otherwise.
#include "BrowserAdaptor.h"
#include "BrowserService.h"
#include "DeskControl.h"
#include "DeskWindow.h"
#include "Pictures.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDBusConnection>
#include <QTextStream>

namespace {

// Settings of the engine that stay as they are when the environment has them already.
void PrepareEnvironment(bool headless)
{
    const auto set = [](const char* name, const QByteArray& value) {
        if (!qEnvironmentVariableIsSet(name)) {
            qputenv(name, value);
        }
    };
    set("QT_QPA_PLATFORM", headless ? "offscreen" : "xcb");
    // The engine's own sandbox refuses to run as root; the private root is one already.
    set("QTWEBENGINE_DISABLE_SANDBOX", "1");
    set("QT_QUICK_BACKEND", "software");
    set("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --no-first-run");
}

bool Offer(BrowserService& service, DeskControl& control)
{
    // The adaptor is a child of the service.
    new BrowserAdaptor(&service);
    QDBusConnection bus = QDBusConnection::systemBus();
    // The objects come first: the core daemon asks for a page as soon as it sees the name.
    return bus.registerObject("/", &service, QDBusConnection::ExportAdaptors) &&
           bus.registerObject("/Desk", &control, QDBusConnection::ExportScriptableSlots) &&
           bus.registerService("com.veltrasys.browser");
}

int Fail(const QString& text)
{
    QTextStream(stderr) << "screen: " << text << Qt::endl;
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char* argv[])
{
    const bool headless = !qEnvironmentVariableIsSet("DISPLAY");
    PrepareEnvironment(headless);
    QApplication application(argc, argv);
    QApplication::setCursorFlashTime(0); // a blinking cursor would be a change of the screen
    QCommandLineParser parser;
    const QCommandLineOption sizeOption("size", "pixels of the screen", "WxH", "320x480");
    const QCommandLineOption picturesOption("pictures", "folder for a picture of each state of the screen",
                                            "DIR");
    parser.addOptions({sizeOption, picturesOption});
    parser.addHelpOption();
    parser.process(application);
    const QStringList size = parser.value(sizeOption).split('x');

    RegisterVectorOfPairSS();
    WebView view;
    view.setFixedSize(size.value(0).toInt(), size.value(1).toInt());
    BrowserService service(view);
    Pictures pictures(view, parser.value(picturesOption));
    DeskControl control(view, pictures);
    if (!Offer(service, control)) {
        return Fail("cannot offer its service: " + QDBusConnection::systemBus().lastError().message());
    }
    if (headless) {
        view.show();
        return QApplication::exec();
    }
    DeskWindow window(view, service);
    window.show();
    return QApplication::exec();
}
