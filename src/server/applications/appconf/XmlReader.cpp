#include "server/applications/appconf/XmlReader.h"

#include "misc/UniqueFd.h"
#include "server/applications/appconf/XmlLimits.h"

#include <QFile>
#include <QXmlInputSource>
#include <QXmlSimpleReader>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace core::configuration {
namespace {

/// Opens nothing but a regular file: the mere opening of a device may act, and an application can put a link
/// to one in its place.
UniqueFd OpenRegularFile(const QByteArray& path, struct stat& info)
{
    const UniqueFd handle(open(path.constData(), O_PATH | O_CLOEXEC));
    if (!handle || fstat(handle.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return UniqueFd();
    }
    const QByteArray name = "/proc/self/fd/" + QByteArray::number(handle.Get());
    return UniqueFd(open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

/// Reads at most \a limit bytes up to the end of the file.
bool ReadUpTo(int fd, int limit, QByteArray& content)
{
    content.resize(limit);
    int used = 0;
    while (used < limit) {
        const ssize_t count = read(fd, content.data() + used, static_cast<size_t>(limit - used));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            break;
        }
        used += static_cast<int>(count);
    }
    content.truncate(used);
    return true;
}

} // namespace

bool ReadConfigFile(const QString& path, QByteArray& content)
{
    struct stat info = {};
    const UniqueFd fd = OpenRegularFile(QFile::encodeName(path), info);
    if (!fd) {
        return false;
    }
    // One byte more than allowed tells a file that grows while it is read.
    return info.st_size <= kMaxXmlSize && ReadUpTo(fd.Get(), kMaxXmlSize + 1, content) &&
           content.size() <= kMaxXmlSize;
}

bool ParseXml(const QByteArray& xml, QDomDocument& document)
{
    // The SAX reader is deprecated, but the only way to keep text nodes of blanks.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    QXmlSimpleReader reader;
    reader.setFeature(QStringLiteral("http://xml.org/sax/features/namespaces"), false);
    reader.setFeature(QStringLiteral("http://xml.org/sax/features/namespace-prefixes"), true);
    reader.setFeature(QStringLiteral("http://trolltech.com/xml/features/report-whitespace-only-CharData"),
                      true);
    QXmlInputSource source;
    source.setData(xml);
    if (FindXmlFlaw(source.data())) {
        return false;
    }
    QDomDocument parsed;
    if (!parsed.setContent(&source, &reader)) {
        return false;
    }
    QT_WARNING_POP
    document = parsed;
    return true;
}

} // namespace core::configuration
