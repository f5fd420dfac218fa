#pragma once

#include "WebView.h"

#include <QSet>
#include <QTimer>

// A folder with a picture of each state of the screen, numbered and named by the page's title, none twice.
class Pictures : public QObject {
    Q_OBJECT

public:
    // Watches the screen and takes a picture when it has changed and stands still; takes none when the folder
    // is "".
    Pictures(WebView& view, QString folder);

    // Writes the picture unless there has been the same before. False when it cannot be written.
    bool Add(const QImage& picture);

private:
    void Look();

    WebView& m_view;
    const QString m_folder;
    QTimer m_timer;
    QImage m_last;
    QSet<QByteArray> m_seen;
};
