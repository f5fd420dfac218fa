#include "MessageCapture.h"

#include "misc/Log.h"

using com::veltrasys::common::qt::LogInitializer;

namespace kxctl::check {
namespace {

/// Takes back the quotes and escapes that a text gets in the log.
QString Unquoted(const QString& text)
{
    if (text.size() < 2 || !text.startsWith('"') || !text.endsWith('"')) {
        return text;
    }
    QString result = text.mid(1, text.size() - 2);
    return result.replace("\\\"", "\"").replace("\\\\", "\\");
}

} // namespace

MessageCapture* MessageCapture::s_current = nullptr;

MessageCapture::MessageCapture() : m_previous(qInstallMessageHandler(Take))
{
    s_current = this;
}

MessageCapture::~MessageCapture()
{
    s_current = nullptr;
    qInstallMessageHandler(m_previous);
}

void MessageCapture::Take(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& message)
{
    QString file;
    QString function;
    QString text = message;
    int line = 0;
    LogInitializer::SplitMsg(message, file, function, line, text);
    s_current->m_texts.append(Unquoted(text.trimmed()).trimmed());
}

} // namespace kxctl::check
