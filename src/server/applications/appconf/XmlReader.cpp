#include "server/applications/appconf/XmlReader.h"

#include "misc/UniqueFd.h"
#include "server/applications/appconf/XmlLimits.h"

#include <QFile>
#include <QXmlInputSource>
#include <QXmlSimpleReader>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

/// Opens a regular file. An application can make pipes and links in its home, but no device.
UniqueFd OpenRegularFile(const QByteArray& path, struct stat& info)
{
    UniqueFd fd(open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd && errno == ELOOP) {
        fd = OpenLinkedFile(path);
    }
    const bool isRegular = fd && fstat(fd.Get(), &info) == 0 && S_ISREG(info.st_mode);
    return isRegular ? std::move(fd) : UniqueFd();
}

/// Reads at most \a limit bytes up to the end of the file.
/// \param expected  how large the file seems to be, less than \a limit
bool ReadUpTo(int fd, int expected, int limit, QByteArray& content)
{
    int used = 0;
    content.resize(expected + 1); // the last byte shows that the file has not grown
    while (used < limit) {
        if (used == content.size()) {
            content.resize(std::min(limit, 2 * used));
        }
        const ssize_t count = read(fd, content.data() + used, static_cast<size_t>(content.size() - used));
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
    return info.st_size <= kMaxXmlSize &&
           ReadUpTo(fd.Get(), static_cast<int>(info.st_size), kMaxXmlSize + 1, content) &&
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
