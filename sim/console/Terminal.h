// The terminal as its clients see it: the core daemon, the browser and the web server.
#pragma once

#include "ApplicationsProxy.h"
#include "SystemProxy.h"
#include "ToolsProxy.h"
#include "WebBrowserProxy.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QVariantMap>

#include <functional>

// Serves events until the condition holds; false when it does not within the limit.
bool WaitFor(const std::function<bool()>& condition, int limitMs = 10000);

// What the web server answered; the status is 0 when it did not.
struct WebAnswer {
    int status;
    QByteArray body;
};

class Terminal : public QObject {
    Q_OBJECT

public:
    // Waits until the daemon and the browser have come onto the bus, ten seconds at most for each.
    explicit Terminal(QObject* parent = nullptr);

    // Whether the daemon offers its applications, and whether the browser is on the bus.
    bool HasCore();
    bool HasBrowser() const { return m_browser.isValid(); }

    // The methods of /Applications. One that fails on the bus returns an empty value and leaves its error
    // here.
    QList<QVariantMap> Enumerate();
    QVariantMap Start(const QVariantMap& request);
    bool Terminate();
    bool Restart();
    // The methods of /System and /Tools. One that fails on the bus returns an empty map, or kNoAnswer.
    static constexpr int kNoAnswer = -100;
    QVariantMap CallSystem(int methodId, const QVariantMap& arguments);
    int SetTimeZone(const QString& zone);
    int SaveVariable(const QString& name, const QString& value);
    QString LastError() const { return m_lastError; }

    // What the person in front of the screen does: a touch on what a CSS selector finds, and a picture of the
    // screen into a PNG file. False when there is nothing to touch, or no picture.
    bool Touch(const QString& selector);
    bool Photograph(const QString& file);
    bool ShowPage(const QString& path);
    // The page on the screen as HTML.
    QString PageSource();

    // The browser's page: "url", "application", "title"; empty when there is no browser.
    QVariantMap CurrentPage();

    // Asks the web server with GET, or with POST when there is form data.
    WebAnswer Fetch(const QString& path, const QByteArray& form = QByteArray());

    // How often the daemon has signalled so, and how often a page was loaded with success or not.
    int StartedCount() const { return m_started; }
    int TerminatedCount() const { return m_terminated; }
    int LoadedCount() const { return m_loaded; }
    int FailedCount() const { return m_failed; }
    int TimeInfoCount() const { return m_timeInfo; }

signals:
    void PageShown(const QVariantMap& page);
    void PageFailed();
    // The browser has left the bus: it ended, or its window was closed.
    void BrowserEnded();

private:
    template<typename Reply>
    bool Await(const Reply& reply);
    bool AskDesk(const char* method, const QString& argument);
    void OnLoadCompleted(bool success);

    ApplicationsProxy m_core;
    SystemProxy m_system;
    ToolsProxy m_tools;
    WebBrowserProxy m_browser;
    QNetworkAccessManager m_network;
    QString m_lastError;
    int m_started = 0;
    int m_terminated = 0;
    int m_loaded = 0;
    int m_failed = 0;
    int m_timeInfo = 0;
};
