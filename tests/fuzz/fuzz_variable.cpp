// Platform variables: a line with the name, a line with the value, then the file that is there.

#include "Fuzz.h"

#include "server/tools/Server.h"

#include <cctype>

namespace {

constexpr auto kFile = "/etc/rc.d/rc.platform.conf";

core::tools::Server& TheServer()
{
    static core::tools::Server server;
    return server;
}

bool HoldsPunctuation(const QByteArray& bytes)
{
    return std::any_of(bytes.begin(), bytes.end(),
                       [](char c) { return std::ispunct(static_cast<unsigned char>(c)); });
}

QByteArrayList LinesOf(const QByteArray& content)
{
    QByteArrayList lines;
    for (int begin = 0; begin < content.size();) {
        const int end = content.indexOf('\n', begin);
        const int next = end < 0 ? content.size() : end + 1;
        lines.append(content.mid(begin, next - begin));
        begin = next;
    }
    return lines;
}

/// Whether \a after is \a before with \a line at the end or in place of one line. What a shorter text does
/// not cover stays behind it.
bool IsOneLineChanged(const QByteArray& before, const QByteArray& after, const QByteArray& line)
{
    if (after == before + line) {
        return true;
    }
    const QByteArrayList lines = LinesOf(before);
    for (int index = 0; index < lines.size(); ++index) {
        QByteArrayList changed = lines;
        changed[index] = line;
        const QByteArray written = changed.join();
        if (after == written + before.mid(written.size())) {
            return true;
        }
    }
    return false;
}

} // namespace

void TryInput(const QByteArray& input)
{
    QByteArray before = input;
    const QString name = TextOf(TakeLine(before));
    const QString value = TextOf(TakeLine(before));
    // Those are read as line ends, and what follows those is lost.
    before.replace('\r', ' ').replace('\0', ' ');
    PutFile(kFile, before);

    const int result = TheServer().SaveVariableValue(name, value);
    const QByteArray after = FileContent(kFile);
    const QByteArray line = QStringLiteral("export %1=\"%2\"\n").arg(name, value).toLocal8Bit();
    Require(result == 0 || after == before, "a refused value changes nothing");
    Require(result != 0 || IsOneLineChanged(before, after, line), "the other lines stay");
    Require(result != 0 || !HoldsPunctuation(value.toUtf8()), "a value cannot break out of its quotes");
}
