// Messages on their way to the platform's log.

#include "Fuzz.h"

#include "misc/Log.h"

using com::veltrasys::common::qt::GetPrefix;
using com::veltrasys::common::qt::LogInitializer;
using com::veltrasys::common::qt::qError;

namespace {

struct Pieces {
    QString file;
    QString function;
    int line = 0;
    QString text;
    bool split = false;
};

Pieces Split(const QString& message)
{
    Pieces pieces;
    pieces.split = LogInitializer::SplitMsg(message, pieces.file, pieces.function, pieces.line, pieces.text);
    return pieces;
}

void TryMessage(const QString& message)
{
    const Pieces pieces = Split(message);
    if (pieces.split) {
        Require(!pieces.file.isEmpty() && !pieces.function.isEmpty() && pieces.line != 0,
                "a prefix is complete");
        const QString before = message.left(message.size() - pieces.text.size());
        Require(before + pieces.text == message, "the text is the end of the message");
        Require(before.isEmpty() || before.endsWith('"'), "and begins after the prefix");
    } else {
        Require(pieces.text.isNull(), "the text is untouched without a prefix");
    }
}

void TryText(const QString& text)
{
    const QString prefix = GetPrefix(QStringLiteral("/a/b/Server"), QStringLiteral("Start"), 42, false);
    const Pieces pieces = Split('"' + prefix + '"' + text);
    Require(pieces.split && pieces.file == "Server" && pieces.function == "Start" && pieces.line == 42,
            "a prefix that was built comes apart");
    Require(pieces.text == text, "no text is lost");
}

} // namespace

void TryInput(const QByteArray& input)
{
    const QString text = TextOf(input);
    TryMessage(text);
    TryText(text);

    const int type = input.isEmpty() ? 0 : input.at(0);
    LogInitializer::QtMsgHandler(type, input.constData());
    Require(TheLastRecord().priority >= 0 && TheLastRecord().priority <= 7, "a priority is syslog's");

    qError() << KX_PREFIX("/a/b/Module") << text;
    Require(TheLastRecord().priority == 3 && TheLastRecord().file == "Module" &&
                TheLastRecord().function == "TryInput",
            "no caller's text changes where a record comes from");
}
