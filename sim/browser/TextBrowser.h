// A browser for a screen that shows text only: fetches the page it is told to show and remembers it.
#pragma once

#include "server/dbus/VectorOfPairSS.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QVariantMap>

class QNetworkReply;

// Members and results are those of the interface com.veltrasys.browser.Server. Methods that need more than
// text (video, prompts, changes to a page that is shown) return -1.
class TextBrowser : public QObject {
    Q_OBJECT

public:
    explicit TextBrowser(QObject* parent = nullptr);

public slots:
    // The page shown: "url", "application" (empty for a page of no application) and "title".
    QVariantMap GetUrl() const;
    // The source of the page shown; empty before the first page.
    QString QueryPage() const { return m_source; }
    // Loads the page. Returns 0 when the load was begun (loadCompleted tells how it ended) and -1 when the
    // address is not one of HTTP; loadCompleted(false) is emitted in that case too.
    int ShowPage(const QString& path);
    // The same. The registry values are for programs of the page, which a text browser does not run.
    int ShowPage(const QString& path, const QVectorOfPairSS& registryValues);

    int PlayVideo(const QString& url);
    int StopVideo();
    int PromptLabelButton(const QString& xml);
    int ReloadPrompts();
    int UpdatePage(const QString& xml, bool wait);

signals:
    void OnApplicationChange(const QVariantMap& applicationData);
    void OnUrlChange(const QVariantMap& applicationData);
    void PageEvent(const QVariantMap& eventData);
    void loadCompleted(bool success);
    void loadStarted();

private:
    void Finish(QNetworkReply* reply);
    void Remember(const QUrl& url, const QString& source);

    QNetworkAccessManager m_network;
    QPointer<QNetworkReply> m_loading;
    QUrl m_url;
    QString m_source;
    QString m_title;
    QString m_application;
};
