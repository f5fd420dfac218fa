#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QDBusServiceWatcher;
class WebBrowserProxy;

/// The link to the terminal's browser service, which may start later than the daemon, stop and come back.
/// Main thread only; construction makes one blocking call to the bus daemon.
class Browser : public QObject {
    Q_OBJECT

public:
    /// Takes up the browser if it is on the bus and watches it come and go. Logs "Failed to create watcher."
    /// at error level if it cannot be watched.
    Browser();
    ~Browser() override;

    /// Shows a page now, or as soon as the browser comes onto the bus (the last page asked for, once). Does
    /// not wait for the browser.
    ///
    /// \param url           address of the page; the empty address is passed on like any other
    /// \param fileToRemove  file to delete once the browser reports a page as loaded; empty for none
    void ShowPage(const QString& url, const QString& fileToRemove);

public slots:
    /// A service came onto the bus. Logs "Failed to connect to WebBrowser" at error level, and drops the
    /// pending page, if it is the browser and cannot be reached.
    void OnServiceRegisteredInternal(const QString& name);
    /// A service left the bus.
    void OnServiceUnregisteredInternal(const QString& name);
    /// The browser has loaded a page, or failed to.
    void OnLoadCompleted(bool success);

private:
    /// \return a proxy that reports loaded pages; null when the browser is not on the bus
    std::unique_ptr<WebBrowserProxy> Connect();

    std::unique_ptr<WebBrowserProxy> m_browserProxy;
    QString m_pendingUrl;
    QDBusServiceWatcher* m_serviceWatcher = nullptr;
    QString m_removeOnLoad;
};
