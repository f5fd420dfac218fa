#pragma once

#include "Pictures.h"
#include "WebView.h"

#include <QDBusContext>
#include <QObject>

// What a hand at the desk does, for the console and for tests: the object /Desk beside the browser's own.
class DeskControl : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.browser.Desk")

public:
    DeskControl(WebView& view, Pictures& pictures);

public slots:
    // Writes a PNG of the screen once its page is painted, with an empty name one into the folder of pictures
    // unless it is there already. False when there is no page or the file cannot be written.
    Q_SCRIPTABLE bool Screenshot(const QString& file);

    // Touches the first element that the CSS selector finds; false when there is none. Answers when the page
    // that this leads to, if any, is loaded.
    Q_SCRIPTABLE bool Touch(const QString& selector);

    // The same at a point, in pixels; false when it is not on the screen.
    Q_SCRIPTABLE bool TouchAt(int x, int y);

    // Types the text on the keypad, into the element that has the focus.
    Q_SCRIPTABLE void Type(const QString& text);

private:
    WebView& m_view;
    Pictures& m_pictures;
};

// Sends a key to the page, pressed and released. \a text is what the key writes, if anything.
void SendKey(WebView& view, int key, const QString& text);
