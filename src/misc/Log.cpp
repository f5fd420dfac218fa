#include "misc/Log.h"

#include <veltradebug.h>

#include <QStringList>
#include <QTime>

#include <array>
#include <cerrno>
#include <cstring>

namespace com::veltrasys::common::qt {
namespace {

enum MessageType : int { InfoMsg = 10, NoticeMsg, ErrorMsg, AlertMsg, EmergMsg };

struct Factory {
    const char* category;
    MessageType type;
};

// Qt drops messages of a type it does not know, so the factories log as debug under a category of their own
// and the handler turns the category back into the type.
constexpr std::array<Factory, 5> kFactories{{
    {"kx.info", InfoMsg},
    {"kx.notice", NoticeMsg},
    {"kx.error", ErrorMsg},
    {"kx.alert", AlertMsg},
    {"kx.emerg", EmergMsg},
}};

struct Priority {
    int type;
    int priority;
};

constexpr int kDebugPriority = 7;
constexpr std::array<Priority, 8> kPriorities{{
    {QtDebugMsg, kDebugPriority},
    {InfoMsg, 6},
    {NoticeMsg, 5},
    {QtWarningMsg, 4},
    {ErrorMsg, 3},
    {QtCriticalMsg, 2},
    {AlertMsg, 1},
    {EmergMsg, 0},
}};

QDebug Stream(MessageType type)
{
    return QMessageLogger(nullptr, 0, nullptr, kFactories.at(type - InfoMsg).category).debug();
}

int TypeOf(QtMsgType type, const char* category)
{
    for (const Factory& factory : kFactories) {
        if (category != nullptr && std::strcmp(category, factory.category) == 0) {
            return factory.type;
        }
    }
    return type;
}

int PriorityOf(int type)
{
    for (const Priority& entry : kPriorities) {
        if (entry.type == type) {
            return entry.priority;
        }
    }
    return kDebugPriority;
}

void HandleMessage(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    LogInitializer::QtMsgHandler(TypeOf(type, context.category), msg.toLocal8Bit().constData());
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
    const QString name = file.split(QLatin1Char('/')).last();
    const QString number = QString::number(line);
    if (!withTime) {
        return QStringLiteral("%1|%2|%3|").arg(name, function, number);
    }
    const QString now = QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz"));
    return QStringLiteral("[%1] %2 - %3(),%4:").arg(now, name, function, number);
}

LogInitializer::LogInitializer()
{
    qInstallMessageHandler(HandleMessage);
}

void LogInitializer::QtMsgHandler(int type, const char* msg)
{
    const int savedErrno = errno;
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
    errno = savedErrno;
}

bool LogInitializer::SplitMsg(const QString& msg, QString& file, QString& function, int& line, QString& text)
{
    constexpr int kSeparators = 5;
    const QLatin1String separators("\"|||\"");
    std::array<int, kSeparators> at{};
    int found = 0;
    for (int from = 0; found < kSeparators; ++found) {
        at.at(found) = msg.indexOf(separators.at(found), from);
        if (at.at(found) < 0) {
            break;
        }
        from = at.at(found) + 1;
    }
    const auto piece = [&](int n) {
        return n + 1 < found ? msg.mid(at.at(n) + 1, at.at(n + 1) - at.at(n) - 1) : QString();
    };

    file = piece(0);
    function = piece(1);
    line = piece(2).toInt();
    if (file.isEmpty() || function.isEmpty() || line == 0) {
        return false;
    }
    text = found == kSeparators ? msg.mid(at.back() + 1) : msg;
    return true;
}

} // namespace com::veltrasys::common::qt
