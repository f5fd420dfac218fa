#pragma once

#include "Applications.h"
#include "BrowserService.h"

#include <QLayout>
#include <QWidget>

// The terminal on a display: the screen, and below it the keypad with the home button.
class DeskWindow : public QWidget {
    Q_OBJECT

public:
    DeskWindow(WebView& view, BrowserService& service);
    ~DeskWindow() override;
    Q_DISABLE_COPY_MOVE(DeskWindow)

private:
    QLayout* Keypad();
    // Shows the home page of the application whose page is on the screen, of the desktop if it has none.
    void GoHome();

    WebView& m_view;
    BrowserService& m_service;
    Applications m_applications;
};
