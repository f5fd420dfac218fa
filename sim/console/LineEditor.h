#pragma once

#include "Screen.h"

#include <QObject>
#include <QSocketNotifier>

#include <termios.h>

// Reads lines from the terminal on standard input while other output scrolls by above them.
class LineEditor : public QObject {
    Q_OBJECT

public:
    explicit LineEditor(Screen& screen, QObject* parent = nullptr);
    ~LineEditor() override;
    Q_DISABLE_COPY_MOVE(LineEditor)

signals:
    void LineEntered(const QString& line);
    // Ctrl-C.
    void Interrupted();
    // End of input.
    void Closed();

private:
    void ReadKeys();
    void Take(char key);
    void Show();

    Screen& m_screen;
    QSocketNotifier m_notifier;
    termios m_saved{};
    QByteArray m_line;
    bool m_inEscape = false;
};
