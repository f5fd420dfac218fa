#include "BrowserAdaptor.h"
#include "TextBrowser.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QTextStream>

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    RegisterVectorOfPairSS();

    TextBrowser browser;
    // The adaptor is a child of the browser.
    new BrowserAdaptor(&browser);
    QDBusConnection bus = QDBusConnection::systemBus();
    // The object comes first: the core daemon asks for a page as soon as it sees the name.
    if (!bus.registerObject(QStringLiteral("/"), &browser, QDBusConnection::ExportAdaptors) ||
        !bus.registerService(QStringLiteral("com.veltrasys.browser"))) {
        QTextStream(stderr) << "browser: cannot offer its service: " << bus.lastError().message() << Qt::endl;
        return 1;
    }
    return QCoreApplication::exec();
}
