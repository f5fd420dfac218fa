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
#include <utility>

namespace core::configuration {
namespace {

/// Opens what a link leads to only if that is a regular file: the mere opening of a device may act.
UniqueFd OpenLinkedFile(const QByteArray& path)
{
    struct stat info = {};
    const UniqueFd handle(open(path.constData(), O_PATH | O_CLOEXEC));
    if (!handle || fstat(handle.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return UniqueFd();
    }
    const QByteArray name = "/proc/self/fd/" + QByteArray::number(handle.Get());
    return UniqueFd(open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

/// Opens nothing but a regular file. Should an application put something else in its place between the two
/// looks, then a pipe of its own at most: it can make no device, and a link is not followed.
UniqueFd OpenRegularFile(const QByteArray& path, struct stat& info)
{
    UniqueFd fd;
    if (lstat(path.constData(), &info) == 0 && S_ISREG(info.st_mode)) {
        fd.Reset(open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    } else if (S_ISLNK(info.st_mode)) {
        fd = OpenLinkedFile(path);
    }
    const bool isRegular = fd && fstat(fd.Get(), &info) == 0 && S_ISREG(info.st_mode);
    return isRegular ? std::move(fd) : UniqueFd();
}

/// \return false when the file cannot be read, or holds more than \a size bytes: somebody is writing it
bool ReadWhole(int fd, int size, QByteArray& content)
{
    int used = 0;
    content.resize(size + 1);
    while (used <= size) {
        const ssize_t count = read(fd, content.data() + used, static_cast<size_t>(size + 1 - used));
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
    return used <= size;
}

} // namespace

bool ReadConfigFile(const QString& path, QByteArray& content)
{
    struct stat info = {};
    const UniqueFd fd = OpenRegularFile(QFile::encodeName(path), info);
    return fd && info.st_size <= kMaxXmlSize && ReadWhole(fd.Get(), static_cast<int>(info.st_size), content);
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
