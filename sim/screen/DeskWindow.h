#pragma once

#include "ApplicationsProxy.h"
#include "BrowserService.h"

#include <QDBusServiceWatcher>
#include <QMap>
#include <QString>
#include <QVBoxLayout>
#include <QVariantMap>
#include <QWidget>

// The terminal on a display: the screen, below it the keypad with the home button, beside it the desktop
// icons of the installed applications.
class DeskWindow : public QWidget {
    Q_OBJECT

public:
    DeskWindow(WebView& view, BrowserService& service);
    ~DeskWindow() override;
    Q_DISABLE_COPY_MOVE(DeskWindow)

private:
    QLayout* Keypad();
    // Asks the daemon for the applications, once it is there and whenever they were started.
    void Refresh();
    void ShowIcons(const QList<QVariantMap>& applications);
    void AddIcon(const QVariantMap& item);
    // Shows the home page of the application whose page is on the screen, of the desktop if it has none.
    void GoHome();

    WebView& m_view;
    BrowserService& m_service;
    ApplicationsProxy m_core;
    QDBusServiceWatcher m_watcher;
    QMap<QString, QString> m_homePages;
    QVBoxLayout m_icons;
};
