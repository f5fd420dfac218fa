#include "misc/Log.h"

#include <veltradebug.h>

#include <QStringList>
#include <QTime>

#include <syslog.h>

#include <array>
#include <cstring>

namespace com::veltrasys::common::qt {
namespace {

enum MessageType : int { InfoMsg = 10, NoticeMsg, ErrorMsg, AlertMsg, EmergMsg };

// Qt drops messages of a type it does not know, so the factories log as debug under a category of their own
// and the handler turns the category back into the type.
constexpr std::array<const char*, 5> kCategories{"kx.info", "kx.notice", "kx.error", "kx.alert", "kx.emerg"};

QDebug Stream(MessageType type)
{
    return QMessageLogger(nullptr, 0, nullptr, kCategories.at(type - InfoMsg)).debug();
}

void HandleMessage(QtMsgType qtType, const QMessageLogContext& context, const QString& msg)
{
    int type = qtType;
    for (int i = 0; i < static_cast<int>(kCategories.size()); ++i) {
        if (context.category != nullptr && std::strcmp(context.category, kCategories.at(i)) == 0) {
            type = InfoMsg + i;
        }
    }
    LogInitializer::QtMsgHandler(type, msg.toLocal8Bit().constData());
}

int PriorityOf(int type)
{
    switch (type) {
    case InfoMsg:
        return LOG_INFO;
    case NoticeMsg:
        return LOG_NOTICE;
    case QtWarningMsg:
        return LOG_WARNING;
    case ErrorMsg:
        return LOG_ERR;
    case QtCriticalMsg:
        return LOG_CRIT;
    case AlertMsg:
        return LOG_ALERT;
    case EmergMsg:
        return LOG_EMERG;
    default:
        return LOG_DEBUG;
    }
}

const LogInitializer g_logInitializer;

} // namespace

QDebug qInfo()
{
    return Stream(InfoMsg);
}

QDebug qNotice()
{
    return Stream(NoticeMsg);
}

QDebug qError()
{
    return Stream(ErrorMsg);
}

QDebug qAlert()
{
    return Stream(AlertMsg);
}

QDebug qEmerg()
{
    return Stream(EmergMsg);
}

QString GetPrefix(const QString& file, const QString& function, int line, bool withTime)
{
    const QString name = file.mid(file.lastIndexOf('/') + 1);
    const QString number = QString::number(line);
    if (!withTime) {
        return QStringLiteral("%1|%2|%3|").arg(name, function, number);
    }
    const QString now = QTime::currentTime().toString("hh:mm:ss.zzz");
    return QStringLiteral("[%1] %2 - %3(),%4:").arg(now, name, function, number);
}

LogInitializer::LogInitializer()
{
    qInstallMessageHandler(HandleMessage);
}

void LogInitializer::QtMsgHandler(int type, const char* msg)
{
    const QString message = QString::fromLocal8Bit(msg);
    QString file;
    QString function;
    QString text;
    int line = 0;
    if (!SplitMsg(message, file, function, line, text)) {
        file.clear();
        function.clear();
        line = 0;
        text = message;
    }
    VLS_PrintLog(PriorityOf(type), "platform", "kx-core", file.toLocal8Bit().constData(),
                 function.toLocal8Bit().constData(), line, "%s", text.toLocal8Bit().constData());
}

bool LogInitializer::SplitMsg(const QString& msg, QString& file, QString& function, int& line, QString& text)
{
    const QString separators = "\"|||\"";
    QStringList pieces; // what stands before each separator
    int from = 0;
    for (const QChar separator : separators) {
        const int at = msg.indexOf(separator, from);
        if (at < 0) {
            break;
        }
        pieces += msg.mid(from, at - from);
        from = at + 1;
    }
    file = pieces.value(1);
    function = pieces.value(2);
    line = pieces.value(3).toInt();
    if (file.isEmpty() || function.isEmpty() || line == 0) {
        return false;
    }
    text = pieces.size() == separators.size() ? msg.mid(from) : msg;
    return true;
}

} // namespace com::veltrasys::common::qt
