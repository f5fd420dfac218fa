#include "server/dbus/Browser.h"

#include "WebBrowserProxy.h"
#include "misc/Log.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QFile>

#include <new>

using com::veltrasys::common::qt::qError;

namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/dbus/Browser";
constexpr auto kBrowserService = "com.veltrasys.browser";

} // namespace

Browser::Browser() : m_browserProxy(Connect()), m_serviceWatcher(new (std::nothrow) QDBusServiceWatcher(this))
{
    if (m_serviceWatcher == nullptr) {
        qError() << KX_PREFIX(kSource) << "Failed to create watcher.";
        return;
    }
    m_serviceWatcher->setConnection(QDBusConnection::systemBus());
    connect(m_serviceWatcher, &QDBusServiceWatcher::serviceUnregistered, this,
            &Browser::OnServiceUnregisteredInternal);
    connect(m_serviceWatcher, &QDBusServiceWatcher::serviceRegistered, this,
            &Browser::OnServiceRegisteredInternal);
    m_serviceWatcher->addWatchedService(kBrowserService);
}

Browser::~Browser() = default;

std::unique_ptr<WebBrowserProxy> Browser::Connect()
{
    std::unique_ptr<WebBrowserProxy> proxy(
        new (std::nothrow) WebBrowserProxy(kBrowserService, "/", QDBusConnection::systemBus(), nullptr));
    if (!proxy || !proxy->isValid()) {
        return nullptr;
    }
    connect(proxy.get(), &WebBrowserProxy::loadCompleted, this, &Browser::OnLoadCompleted);
    return proxy;
}

void Browser::ShowPage(const QString& url, const QString& fileToRemove)
{
    if (m_browserProxy && m_browserProxy->isValid()) {
        m_browserProxy->ShowPage(url);
    } else {
        m_pendingUrl = url;
    }
    m_removeOnLoad = fileToRemove;
}

void Browser::OnServiceRegisteredInternal(const QString& name)
{
    if (name != kBrowserService) {
        return;
    }
    m_browserProxy = Connect();
    if (!m_browserProxy) {
        qError() << KX_PREFIX(kSource) << "Failed to connect to WebBrowser";
    } else if (!m_pendingUrl.isEmpty()) {
        m_browserProxy->ShowPage(m_pendingUrl);
    }
    m_pendingUrl.clear();
}

void Browser::OnServiceUnregisteredInternal(const QString& name)
{
    if (name == kBrowserService) {
        m_browserProxy.reset();
    }
}

void Browser::OnLoadCompleted(bool /*success*/)
{
    if (!m_removeOnLoad.isEmpty()) {
        QFile::remove(m_removeOnLoad);
    }
}
