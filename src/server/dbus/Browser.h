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
    /// Connects to the browser if it is on the bus and watches the service. Logs "Failed to create watcher."
    /// at error level if the service cannot be watched.
    Browser();
    ~Browser() override;

    /// Shows a page now, or as soon as the browser comes onto the bus (the last page asked for, once). Does
    /// not wait for the browser.
    ///
    /// \param url           address of the page; the empty address is passed on like any other
    /// \param fileToRemove  file to delete once the browser reports a page as loaded; empty for none
    void ShowPage(const QString& url, const QString& fileToRemove);

public slots:
    /// The service \a name came onto the bus. If it is the browser, shows the pending page; if the browser
    /// cannot be reached, logs "Failed to connect to WebBrowser" at error level and drops that page.
    void OnServiceRegisteredInternal(const QString& name);
    /// The service \a name left the bus. Disconnects from the browser if it is that.
    void OnServiceUnregisteredInternal(const QString& name);
    /// The browser has loaded a page, or failed to. Deletes the file that ShowPage was given.
    void OnLoadCompleted(bool success);

private:
    /// \return a proxy that reports loaded pages; null when the browser is not on the bus
    std::unique_ptr<WebBrowserProxy> Connect();

    std::unique_ptr<WebBrowserProxy> m_browserProxy; ///< null while the browser is not on the bus
    QString m_pendingUrl;                            ///< asked for while there was no proxy
    QDBusServiceWatcher* m_serviceWatcher;           ///< owned as a child
    QString m_removeOnLoad;
};
