// The engine's view: one page, no windows beside it, with the screen's script in each page.
#pragma once

#include "Applications.h"

#include <QJsonObject>
#include <QObject>
#include <QVariantMap>
#include <QWebChannel>
#include <QWebEngineView>

#include <functional>

// What a page's script reaches of the screen.
class Bridge : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;

public slots:
    void Tell(const QString& name, const QVariantMap& data) { emit Told(name, data); }

signals:
    void Told(const QString& name, const QVariantMap& data);
};

class WebView : public QWebEngineView {
    Q_OBJECT

public:
    explicit WebView(QWidget* parent = nullptr);

    // Sets what window.kx.registry holds in the pages that are loaded from now on.
    void SetRegistry(const QJsonObject& values);

    // Calls a function of the screen's script in the page; the outcome is false when the page has none.
    // \a arguments are JavaScript.
    void Call(const QString& function, const QString& arguments, const std::function<void(bool)>& done);

    // Grabs the view once the page's present state is painted; a picture without size when there is no page.
    // While a page is being loaded it may be that one.
    void Grab(const std::function<void(const QPixmap&)>& done);

    // Calls \a done once the page's present state is painted and the page that it leads to, if any, is
    // loaded.
    void WhenSettled(const std::function<void()>& done);

signals:
    // The page's script has something to say.
    void PageEvent(const QString& name, const QVariantMap& eventData);

protected:
    // A link that asks for a new window gets this one.
    QWebEngineView* createWindow(QWebEnginePage::WebWindowType type) override;

private:
    void AskWhetherPainted();
    void TellApplications();
    void FinishGrabs(const QPixmap& picture);
    void OnTold(const QString& name, const QVariantMap& eventData);

    bool m_loading = false;
    Applications m_applications;
    Bridge m_bridge;
    QWebChannel m_channel;
    QList<std::function<void(const QPixmap&)>> m_grabs;
};
