// Arguments of SystemCall: a line with the number, a line of exit statuses, then a line for each argument,
// such as "mode s:serial". The letter is the type; r is a text that is repeated.

#include "Fuzz.h"
#include "StandIns.h"

#include "server/applications/Server.h"
#include "server/system/Server.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QRegularExpression>
#include <QVariantMap>

#include <cstdlib>

namespace {

core::system::Server& TheServer()
{
    static core::applications::Server applications;
    static core::system::Server server(applications);
    return server;
}

/// "COUNT TEXT" as that many texts: the limits lie where inputs of such a length would take the fuzzer's
/// time.
QString Repeated(const QByteArray& text)
{
    constexpr int kLongest = 200'000;
    const int blank = text.indexOf(' ');
    const QString part = TextOf(text.mid(blank + 1));
    return part.repeated(qBound(0, text.left(blank).toInt(), kLongest / qMax(1, part.size())));
}

/// A value of one of the types that a caller can send.
QVariant ValueOf(char type, const QByteArray& text)
{
    switch (type) {
    case 'i':
        return text.toInt();
    case 'u':
        return text.toUInt();
    case 'x':
        return text.toLongLong();
    case 'd':
        return text.toDouble();
    case 'b':
        return text == "true";
    case 'y':
        return text;
    case 'l':
        return TextOf(text).split(' ');
    case 'm':
        return QVariantMap{{TextOf(text), TextOf(text)}};
    case 'r':
        return Repeated(text);
    case 'n':
        return QVariant();
    default:
        return TextOf(text);
    }
}

/// \param line  "KEY T:TEXT", or a key alone
void AddArgument(QVariantMap& arguments, QByteArray line)
{
    line.replace('\r', '\n');
    const int colon = line.indexOf(':');
    const bool isTyped = colon >= 2 && line.at(colon - 2) == ' ';
    const QByteArray key = isTyped ? line.left(colon - 2) : line;
    const char type = isTyped ? line.at(colon - 1) : 's';
    arguments.insert(TextOf(key), ValueOf(type, isTyped ? line.mid(colon + 1) : QByteArray()));
}

void RequireOwnLink(const char* link, const char* targets)
{
    const QString target = QFileInfo(QString::fromLatin1(link)).symLinkTarget();
    Require(QRegularExpression(QString::fromLatin1(targets)).match(target).hasMatch(),
            "the web server's links lead to its own files");
}

void RequireOwnLinks()
{
    RequireOwnLink("/etc/lighttpd/lighttpd.conf", "\\A(?:/etc/lighttpd/lighttpd.conf.HTTPS?)?\\z");
    RequireOwnLink("/etc/lighttpd/caching.conf", "\\A(?:/etc/lighttpd/(?:en|dis)able_cache.conf)?\\z");
    RequireOwnLink("/etc/lighttpd/buffer-resp.conf", "\\A(?:/etc/lighttpd/buffer-resp-(?:on|off).conf)?\\z");
}

/// The web server's files are there, or else a link would be in the way for good.
bool PutWebServerFiles()
{
    for (const char* path : {"/etc/lighttpd/lighttpd.conf.HTTP", "/etc/lighttpd/lighttpd.conf.HTTPS",
                             "/etc/lighttpd/enable_cache.conf", "/etc/lighttpd/disable_cache.conf",
                             "/etc/lighttpd/buffer-resp-on.conf", "/etc/lighttpd/buffer-resp-off.conf"}) {
        PutFile(path, QByteArray());
    }
    return true;
}

} // namespace

void TryInput(const QByteArray& input)
{
    static const bool isPrepared = PutWebServerFiles();
    Q_UNUSED(isPrepared)
    core::system::Server& server = TheServer();
    QByteArray rest = input;
    const int method = TakeLine(rest).toInt();
    ResetMachine(TakeLine(rest));
    QVariantMap arguments;
    for (const QByteArray& line : rest.split('\n')) {
        AddArgument(arguments, line);
    }

    const QVariantMap result = server.SystemCall(method, arguments);
    Require(result.value("return").type() == QVariant::Int, "every call returns a status");
    Require((method == 97) == result.contains("response"), "the web server's call tells what happened");
    RequireOwnLinks();
    const char* const url = std::getenv("OPEN_ON_EXIT_URL");
    Require(url == nullptr || QByteArray(url).size() < 128 * 1024, "programs can still be started");
    QCoreApplication::processEvents();
}
