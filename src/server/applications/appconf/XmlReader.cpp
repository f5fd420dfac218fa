#include "server/applications/appconf/XmlReader.h"

#include "misc/UniqueFd.h"

#include <QFile>
#include <QHash>
#include <QXmlInputSource>
#include <QXmlSimpleReader>
#include <QXmlStreamReader>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace core::configuration {
namespace {

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

qint64 TextOf(const QXmlStreamReader& reader)
{
    qint64 size = reader.text().size();
    for (const QXmlStreamAttribute& attribute : reader.attributes()) {
        size += attribute.value().size();
    }
    return size;
}

/// The declared entities and how much text each may stand for.
QHash<QString, qint64> EntitySizes(const QString& xml)
{
    QXmlStreamReader reader(xml);
    while (!reader.atEnd() && !reader.isDTD() && !reader.isStartElement()) {
        reader.readNext();
    }
    QHash<QString, qint64> sizes;
    const QXmlStreamEntityDeclarations entities = reader.entityDeclarations();
    for (const QXmlStreamEntityDeclaration& entity : entities) {
        // The reader bounds what an entity with others in it comes to.
        const bool isNested = entity.value().contains(QLatin1Char('&'));
        sizes.insert(entity.name().toString(),
                     isNested ? reader.entityExpansionLimit() : entity.value().size());
    }
    return sizes;
}

/// An upper bound of the text that all references to entities stand for, found without expanding any: a
/// reader puts the text between two tags together in memory before it shows any of it.
qint64 ExpandedSize(const QString& xml)
{
    const QHash<QString, qint64> sizes = EntitySizes(xml);
    qint64 total = 0;
    int begin = -1;
    for (int at = 0; at < xml.size() && !sizes.isEmpty(); ++at) {
        if (xml.at(at) == QLatin1Char('&')) {
            begin = at + 1;
        } else if (xml.at(at) == QLatin1Char(';') && begin >= 0) {
            total += sizes.value(xml.mid(begin, at - begin));
            begin = -1;
        }
    }
    return total;
}

/// Whether the DOM reader can take the text: it recurses once per level and expands every entity in memory,
/// so an application could end the daemon with a small file.
bool IsWithinLimits(const QString& xml)
{
    // The bound also counts what looks like a reference in a comment, so it is not held against the limit
    // itself.
    constexpr qint64 kMaxExpandedSize = 16LL * kMaxXmlSize;
    if (ExpandedSize(xml) > kMaxExpandedSize) {
        return false;
    }
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    qint64 text = 0;
    while (!reader.atEnd()) {
        const auto token = reader.readNext();
        if (token == QXmlStreamReader::StartElement) {
            ++depth;
        } else if (token == QXmlStreamReader::EndElement) {
            --depth;
        }
        text += TextOf(reader);
        if (depth > kMaxXmlDepth || text > kMaxXmlSize) {
            return false;
        }
    }
    return !reader.hasError();
}

} // namespace

bool ReadConfigFile(const QString& path, QByteArray& content)
{
    const QByteArray name = QFile::encodeName(path);
    const UniqueFd fd(open(name.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info = {};
    if (!fd || fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
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
    if (!IsWithinLimits(source.data())) {
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
