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

    // Loads the page. Returns 0 when the load was begun (loadCompleted tells how it ended) and -1 when the
    // address is not one of HTTP; loadStarted and loadCompleted(false) are emitted in that case too. The
    // registry values are in window.kx.registry of this page and of those it leads to.
    int ShowPage(const QString& path);
    int ShowPage(const QString& path, const QVectorOfPairSS& registryValues);

    // Changes elements of the page, see ParseUpdate. Returns -1 when the XML is not of that form. With
    // \a wait the answer comes when the page has changed, and is -1 when it lacks one of the elements.
    int UpdatePage(const QString& xml, bool wait);

    // Shows a label and buttons at the bottom of the page, see ParsePrompt. A button that is touched takes
    // them away and is told by PageEvent {"name": "prompt", "button": caption}.
    int PromptLabelButton(const QString& xml);

    // Shows the last prompt again on the page shown now; -1 when there was none.
    int ReloadPrompts();

    // Covers the page with a video of an HTTP address. Returns 0 when the player is there; PageEvent
    // {"name": "video", "state": "playing" | "ended" | "error", "url": address} tells how it goes.
    int PlayVideo(const QString& url);
    // Takes the player away; -1 when there is none.
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
