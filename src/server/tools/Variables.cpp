#include "server/tools/Server.h"

#include "misc/Log.h"
#include "server/tools/Attempt.h"

#include <QByteArrayList>
#include <QFile>
#include <QRegExp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

using com::veltrasys::common::qt::qError;

namespace core::tools {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/tools/Server";

constexpr auto kConfiguration = "/etc/rc.d/rc.platform.conf";
constexpr auto kAudiopayd = "/etc/platform/99-audiopayd";
constexpr mode_t kEnabled = 0755;
constexpr mode_t kDisabled = 0644;

/// Characters that no value may hold.
constexpr auto kRefused = "[-`~!@#$%^&*()_”+=|:;<>«»,.?/{}'\"\\[\\]\\\\]";

bool IsValidValue(const QString& value)
{
    static const QRegExp refused(QString::fromUtf8(kRefused));
    return !value.contains(refused);
}

/// Tells whether a line of the file, as bytes, matches.
using LineMatcher = std::function<bool(const QByteArray&)>;

bool MatchNothing(const QByteArray& /*line*/)
{
    return false;
}

LineMatcher MatchPlain(const QString& name)
{
    const QByteArray bytes = name.toLatin1();
    if (QString::fromLatin1(bytes) != name) {
        return MatchNothing;
    }
    return [bytes](const QByteArray& line) {
        return memmem(line.constData(), line.size(), bytes.constData(), bytes.size()) != nullptr;
    };
}

/// Shortens each run of stars to two, which mean as much as many. Not to one: after a backslash the first
/// stands for itself. QString::replace would take quadratic time.
/// \return as much of the result as is needed to see that it is longer than \a limit
QString ShortenStars(const QString& name, int limit)
{
    QString shortened;
    for (const QChar character : name) {
        if (shortened.size() > limit) {
            break;
        }
        if (character != QLatin1Char('*') || !shortened.endsWith(QLatin1String("**"))) {
            shortened += character;
        }
    }
    return shortened;
}

LineMatcher MatchWildcard(const QString& name)
{
    constexpr int kMaxLength = 64;
    const QString part = ShortenStars(name, kMaxLength);
    if (part.size() > kMaxLength) {
        return MatchNothing;
    }
    const QRegExp pattern(QStringLiteral("*%1*").arg(part), Qt::CaseSensitive, QRegExp::Wildcard);
    return [pattern](const QByteArray& line) { return pattern.exactMatch(QString::fromLatin1(line)); };
}

bool HasWildcards(const QString& name)
{
    // The backslash is none, but changes the meaning of what follows it.
    const QString wildcards = QStringLiteral("*?[]\\");
    return std::any_of(name.begin(), name.end(), [&](QChar c) { return wildcards.contains(c); });
}

/// Recognises the lines that match the wildcard pattern "*NAME*".
///
/// QRegExp takes time in proportion to the product of both lengths, and more for stars side by side, so that
/// hostile names and the lines they leave behind could block the daemon. Names without wildcards, which is
/// all that are in use, are therefore looked for in linear time, and the others have to be short.
LineMatcher MatchName(const QString& name)
{
    return HasWildcards(name) ? MatchWildcard(name) : MatchPlain(name);
}

/// Reads to the end. What follows a NUL in a line is dropped, its line end included.
QByteArrayList ReadLines(QFile& file)
{
    QByteArrayList lines;
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        lines.append(QByteArray(line.constData()));
    }
    return lines;
}

/// Writes at the current position, to the last byte.
bool Write(QFile& file, const QByteArray& text)
{
    return file.write(text) == text.size() && file.flush();
}

/// Puts \a line in place of the one at \a position and writes the text over the old one.
bool Rewrite(QFile& file, QByteArrayList lines, int position, const QByteArray& line)
{
    lines[position] = line;
    return file.seek(0) && Write(file, lines.join());
}

int Save(const QString& variable_name, const QString& variable_value)
{
    if (!IsValidValue(variable_value)) {
        return -1;
    }
    QFile file(QString::fromLatin1(kConfiguration));
    if (!file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly | QIODevice::Text)) {
        return -1;
    }
    const QByteArray line =
        QStringLiteral("export %1=\"%2\"\n").arg(variable_name, variable_value).toLocal8Bit();
    const QByteArrayList lines = ReadLines(file);
    const auto found = std::find_if(lines.begin(), lines.end(), MatchName(variable_name));
    const bool written = found != lines.end()
                             ? Rewrite(file, lines, static_cast<int>(found - lines.begin()), line)
                             : Write(file, line);
    return written ? 0 : -1;
}

} // namespace

int Server::SaveVariableValue(const QString& variable_name, const QString& variable_value)
{
    return Attempt("SaveVariableValue", -1, [&] { return Save(variable_name, variable_value); });
}

void Server::EnableAudiopayd(bool enable)
{
    if (chmod(kAudiopayd, enable ? kEnabled : kDisabled) != 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << std::strerror(error);
    }
}

bool Server::IsAudiopaydEnabled()
{
    return access(kAudiopayd, X_OK) == 0;
}

} // namespace core::tools
