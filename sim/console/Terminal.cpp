#include "Terminal.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusServiceWatcher>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QNetworkReply>
#include <QTimer>

namespace {

// How often a condition is looked at that no event announces.
constexpr int kPollMs = 20;
constexpr int kFetchLimitMs = 10000;
constexpr auto kCore = "com.veltrasys.kx.core";
constexpr auto kBrowser = "com.veltrasys.browser";

// The service's name, once it is on the bus or the time is up: a proxy that is made while its service comes
// up complains about it.
QString Awaited(const char* service)
{
    QString name = QString::fromLatin1(service);
    WaitFor([&] { return QDBusConnection::systemBus().interface()->isServiceRegistered(name).value(); });
    return name;
}

} // namespace

bool WaitFor(const std::function<bool()>& condition, int limitMs)
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (!condition()) {
        if (elapsed.hasExpired(limitMs)) {
            return false;
        }
        QEventLoop loop;
        QTimer::singleShot(kPollMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

Terminal::Terminal(QObject* parent)
    : QObject(parent),
      m_core(Awaited(kCore), QStringLiteral("/Applications"), QDBusConnection::systemBus(), nullptr),
      m_system(Awaited(kCore), QStringLiteral("/System"), QDBusConnection::systemBus(), nullptr),
      m_tools(Awaited(kCore), QStringLiteral("/Tools"), QDBusConnection::systemBus(), nullptr),
      m_browser(Awaited(kBrowser), QStringLiteral("/"), QDBusConnection::systemBus(), nullptr)
{
    qDBusRegisterMetaType<QList<QVariantMap>>();
    RegisterVectorOfPairSS();
    connect(&m_core, &ApplicationsProxy::OnStarted, this, [this] { ++m_started; });
    connect(&m_core, &ApplicationsProxy::OnTerminate, this, [this] { ++m_terminated; });
    connect(&m_tools, &ToolsProxy::TimeInfoChanged, this, [this] { ++m_timeInfo; });
    connect(&m_browser, &WebBrowserProxy::loadCompleted, this, &Terminal::OnLoadCompleted);
    auto* watcher = new QDBusServiceWatcher(QString::fromLatin1(kBrowser), QDBusConnection::systemBus(),
                                            QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, &Terminal::BrowserEnded);
}

template<typename Reply>
bool Terminal::Await(const Reply& reply)
{
    WaitFor([&] { return reply.isFinished(); }, 30000);
    m_lastError = reply.isFinished() ? reply.error().message() : QStringLiteral("no answer");
    return reply.isFinished() && !reply.isError();
}

bool Terminal::HasCore()
{
    // The daemon takes its name before it offers its objects.
    const auto request = QDBusMessage::createMethodCall(
        QString::fromLatin1(kCore), QStringLiteral("/Applications"),
        QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    const QDBusPendingReply<QString> reply = QDBusConnection::systemBus().asyncCall(request);
    return Await(reply) && reply.value().contains(m_core.interface());
}

QList<QVariantMap> Terminal::Enumerate()
{
    const auto reply = m_core.Enumerate();
    return Await(reply) ? reply.value() : QList<QVariantMap>();
}

QVariantMap Terminal::Start(const QVariantMap& request)
{
    const auto reply = m_core.Start(request);
    return Await(reply) ? reply.value() : QVariantMap();
}

bool Terminal::Terminate()
{
    return Await(m_core.Terminate());
}

bool Terminal::Restart()
{
    return Await(m_core.Restart(QString()));
}

QVariantMap Terminal::CallSystem(int methodId, const QVariantMap& arguments)
{
    const auto reply = m_system.SystemCall(methodId, arguments);
    return Await(reply) ? reply.value() : QVariantMap();
}

int Terminal::SetTimeZone(const QString& zone)
{
    const auto reply = m_tools.SetTimeZone(zone);
    return Await(reply) ? reply.value() : kNoAnswer;
}

int Terminal::SaveVariable(const QString& name, const QString& value)
{
    const auto reply = m_tools.SaveVariableValue(name, value);
    return Await(reply) ? reply.value() : kNoAnswer;
}

bool Terminal::AskDesk(const char* method, const QString& argument)
{
    auto request = QDBusMessage::createMethodCall(QString::fromLatin1(kBrowser), QStringLiteral("/Desk"),
                                                  QStringLiteral("com.veltrasys.browser.Desk"),
                                                  QString::fromLatin1(method));
    request.setArguments({argument});
    const QDBusPendingReply<bool> reply = QDBusConnection::systemBus().asyncCall(request);
    return Await(reply) && reply.value();
}

bool Terminal::Touch(const QString& selector)
{
    return AskDesk("Touch", selector);
}

bool Terminal::Photograph(const QString& file)
{
    return AskDesk("Screenshot", file);
}

bool Terminal::ShowPage(const QString& path)
{
    const auto reply = m_browser.ShowPage(QStringLiteral("http://localhost") + path);
    return Await(reply) && reply.value() == 0;
}

QString Terminal::PageSource()
{
    const auto reply = m_browser.QueryPage();
    return Await(reply) ? reply.value() : QString();
}

QVariantMap Terminal::CurrentPage()
{
    const auto reply = m_browser.GetUrl();
    return Await(reply) ? reply.value() : QVariantMap();
}

WebAnswer Terminal::Fetch(const QString& path, const QByteArray& form)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://localhost") + path));
    request.setTransferTimeout(kFetchLimitMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QStringLiteral("application/x-www-form-urlencoded"));
    QNetworkReply* reply = form.isEmpty() ? m_network.get(request) : m_network.post(request, form);
    WaitFor([&] { return reply->isFinished(); }, kFetchLimitMs);
    reply->deleteLater();
    return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
}

void Terminal::OnLoadCompleted(bool success)
{
    if (success) {
        ++m_loaded;
        emit PageShown(CurrentPage());
    } else {
        ++m_failed;
        emit PageFailed();
    }
}
