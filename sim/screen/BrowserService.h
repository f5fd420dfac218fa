#pragma once

#include "WebView.h"
#include "server/dbus/VectorOfPairSS.h"

#include <QDBusContext>
#include <QObject>
#include <QUrl>
#include <QVariantMap>

#include <functional>

// The interface com.veltrasys.browser.Server on the engine. Members and results are those of the interface;
// where the engine answers later, so does the method. Results are 0 for success and -1 for failure.
class BrowserService : public QObject, protected QDBusContext {
    Q_OBJECT

public:
    explicit BrowserService(WebView& view, QObject* parent = nullptr);

public slots:
    // The page shown: "url", "application" (empty for a page of no application) and "title".
    QVariantMap GetUrl() const;

    // The page shown, as HTML of its present state; empty before the first page.
    QString QueryPage();

    // Begins to load an HTTP address; loadCompleted tells how it ended, at once for any other address. The
    // registry values are in window.kx.registry of this page and of those it leads to.
    int ShowPage(const QString& path);
    int ShowPage(const QString& path, const QVectorOfPairSS& registryValues);

    // Changes elements of the page, see ParseUpdate. With \a wait the answer comes when the page has changed,
    // and is -1 when it lacks one of the elements.
    int UpdatePage(const QString& xml, bool wait);

    // Shows a label and buttons at the bottom of the page, see ParsePrompt; again on the page shown now.
    int PromptLabelButton(const QString& xml);
    int ReloadPrompts();

    // Covers the page with a video of an HTTP address; takes the player away.
    int PlayVideo(const QString& url);
    int StopVideo();

signals:
    void OnApplicationChange(const QVariantMap& applicationData);
    void OnUrlChange(const QVariantMap& applicationData);
    // "name", and what the page gave to window.kx.event(name, data).
    void PageEvent(const QVariantMap& eventData);
    void loadCompleted(bool success);
    void loadStarted();

private:
    int Load(const QString& path);
    int CallLater(const QString& function, const QString& arguments);
    void OnLoadFinished(bool success);
    void OnPageEvent(const QString& name, const QVariantMap& data);

    WebView& m_view;
    QString m_application;
    QString m_promptArguments;
    bool m_hasPage = false;
};
