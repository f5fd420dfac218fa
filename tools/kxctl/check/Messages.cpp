#include "Messages.h"

#include "misc/Log.h"

using com::veltrasys::common::qt::LogInitializer;

namespace kxctl::check {
namespace {

QStringList g_messages;

/// Takes back the quotes and escapes that a text gets in the log.
QString Unquoted(const QString& text)
{
    if (text.size() < 2 || !text.startsWith('"') || !text.endsWith('"')) {
        return text;
    }
    return text.mid(1, text.size() - 2).replace("\\\"", "\"").replace("\\\\", "\\");
}

void Take(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& message)
{
    QString file;
    QString function;
    QString text = message;
    int line = 0;
    LogInitializer::SplitMsg(message, file, function, line, text);
    g_messages.append(Unquoted(text.trimmed()).trimmed());
}

} // namespace

QStringList MessagesOf(const std::function<void()>& action)
{
    g_messages.clear();
    const QtMessageHandler previous = qInstallMessageHandler(Take);
    action();
    qInstallMessageHandler(previous);
    return g_messages;
}

} // namespace kxctl::check
