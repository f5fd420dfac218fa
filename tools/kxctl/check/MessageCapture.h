#pragma once

#include <QStringList>

namespace kxctl::check {

/// Takes what the daemon's code logs, for as long as the object lives. One at a time.
class MessageCapture {
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    /// \return the texts of the messages, without their prefix and quotes
    QStringList Texts() const { return m_texts; }

private:
    static void Take(QtMsgType type, const QMessageLogContext& context, const QString& message);

    static MessageCapture* s_current;
    QtMessageHandler m_previous;
    QStringList m_texts;
};

} // namespace kxctl::check
