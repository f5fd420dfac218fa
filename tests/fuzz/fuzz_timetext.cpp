// Times as callers write them, and the hardware clock as the kernel does: a line with the time, then the
// file.

#include "Fuzz.h"
#include "StandIns.h"

#include "server/tools/Server.h"

#include <QDateTime>

namespace {

core::tools::Server& TheServer()
{
    static core::tools::Server server;
    return server;
}

bool IsKnownResult(int result)
{
    return result == 0 || result == -1;
}

/// Another parser's opinion, where the text is written in full.
void CompareWithQt(const QString& text)
{
    const QString format = QStringLiteral("yyyy-MM-dd HH:mm:ss");
    const QDateTime expected = QDateTime::fromString(text, format);
    const qint64 seconds = expected.toSecsSinceEpoch();
    if (expected.isValid() && expected.toString(format) == text && seconds != -1) {
        Require(TheMachine().clock == QVector<std::time_t>{seconds},
                "the clock is set to the time that was asked for");
    }
}

} // namespace

void TryInput(const QByteArray& input)
{
    QByteArray rest = input;
    const QString text = TextOf(TakeLine(rest));
    PutFile("/sys/class/rtc/rtc0/since_epoch", rest);
    ResetMachine();

    const int result = TheServer().SetSystemTime(text, QString());
    Require(IsKnownResult(result), "a result is one of those documented");
    Require(TheMachine().clock.size() == (result == 0 ? 1 : 0), "the clock is set for valid times only");
    CompareWithQt(text);

    const QByteArray offset = FileContent("/etc/time_offset");
    bool isNumber = false;
    offset.toInt(&isNumber);
    Require(offset.isEmpty() || isNumber, "the offset is a number");
}
