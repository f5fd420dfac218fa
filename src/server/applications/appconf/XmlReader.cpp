#include "server/applications/appconf/XmlReader.h"

#include "misc/UniqueFd.h"

#include <QFile>
#include <QXmlDefaultHandler>
#include <QXmlInputSource>
#include <QXmlSimpleReader>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

// The SAX reader is deprecated, but the only way to keep text nodes of blanks.
QT_WARNING_DISABLE_DEPRECATED

namespace core::configuration {
namespace {

constexpr int kMaxDepth = 100;
constexpr int kMaxEntities = 256;
constexpr int kMaxGroups = 10000;
constexpr qint64 kMaxExpansion = 4LL * 1024 * 1024;

/// Qt's own bound on the expansion of nested entities, in characters.
constexpr qint64 kNestedExpansion = 4096;

/// Qt's reader calls itself for each "(" in the declaration of an element, and reports none of them.
bool HasTooManyGroups(const QString& declarations)
{
    return declarations.count('(') > kMaxGroups;
}

/// Stands in front of the DOM's handlers and stops the reader where a file could harm the daemon.
class LimitingHandler : public QXmlDefaultHandler {
public:
    /// \param references  number of "&" and "%" in the text, the most references that it can hold
    explicit LimitingHandler(qint64 references) : m_references(references) {}

    QXmlContentHandler* m_content = nullptr; ///< the DOM's
    QXmlDeclHandler* m_declarations = nullptr;

    bool startElement(const QString& uri, const QString& localName, const QString& name,
                      const QXmlAttributes& attributes) override
    {
        if (++m_depth > kMaxDepth) {
            return Refuse("too many levels of elements");
        }
        return m_content->startElement(uri, localName, name, attributes);
    }
    bool endElement(const QString& uri, const QString& localName, const QString& name) override
    {
        --m_depth;
        return m_content->endElement(uri, localName, name);
    }
    bool internalEntityDecl(const QString& name, const QString& value) override
    {
        const bool isNested = value.contains('&') || value.contains('%');
        const qint64 length = isNested ? std::max<qint64>(value.size(), kNestedExpansion) : value.size();
        if (m_references * length > kMaxExpansion) {
            return Refuse("entities could expand to too much text");
        }
        if (HasTooManyGroups(value)) {
            return Refuse("too many groups in an entity");
        }
        return CountEntity() && m_declarations->internalEntityDecl(name, value);
    }
    bool externalEntityDecl(const QString& name, const QString& publicId, const QString& systemId) override
    {
        return CountEntity() && m_declarations->externalEntityDecl(name, publicId, systemId);
    }
    QString errorString() const override { return m_error; }

    void setDocumentLocator(QXmlLocator* locator) override { m_content->setDocumentLocator(locator); }
    bool endDocument() override { return m_content->endDocument(); }
    bool characters(const QString& text) override { return m_content->characters(text); }
    bool skippedEntity(const QString& name) override { return m_content->skippedEntity(name); }
    bool processingInstruction(const QString& target, const QString& data) override
    {
        return m_content->processingInstruction(target, data);
    }

private:
    bool CountEntity() { return ++m_entities <= kMaxEntities || Refuse("too many entities"); }
    bool Refuse(const char* reason)
    {
        m_error = reason;
        return false;
    }

    qint64 m_references;
    int m_depth = 0;
    int m_entities = 0;
    QString m_error;
};

/// QDomDocument installs its handlers in the reader that it is given.
class LimitingReader : public QXmlSimpleReader {
public:
    explicit LimitingReader(LimitingHandler& handler) : m_handler(handler) {}

    void setContentHandler(QXmlContentHandler* handler) override
    {
        m_handler.m_content = handler;
        QXmlSimpleReader::setContentHandler(&m_handler);
    }
    void setDeclHandler(QXmlDeclHandler* handler) override
    {
        m_handler.m_declarations = handler;
        QXmlSimpleReader::setDeclHandler(&m_handler);
    }

private:
    LimitingHandler& m_handler;
};

} // namespace

bool ReadConfigFile(const QString& path, QByteArray& content)
{
    struct stat info = {};
    const UniqueFd handle(open(QFile::encodeName(path).constData(), O_PATH | O_CLOEXEC));
    if (!handle || fstat(handle.Get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kMaxXmlSize) {
        return false;
    }
    // Without blocking: an application could hold a lease on its file, which delays other openers by 45 s.
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(handle.Get());
    const UniqueFd fd(open(link.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    content.resize(static_cast<int>(info.st_size));
    return read(fd.Get(), content.data(), content.size()) == content.size();
}

bool ParseXml(const QByteArray& xml, QDomDocument& document, XmlError* error)
{
    QXmlInputSource source;
    source.setData(xml);
    const QString text = source.data();
    LimitingHandler handler(text.count('&') + text.count('%'));
    LimitingReader reader(handler);
    reader.setFeature("http://xml.org/sax/features/namespaces", false);
    reader.setFeature("http://xml.org/sax/features/namespace-prefixes", true);
    reader.setFeature("http://trolltech.com/xml/features/report-whitespace-only-CharData", true);
    QDomDocument parsed;
    XmlError reason = {"too many groups in declarations of elements"};
    if ((text.contains("<!ELEMENT") && HasTooManyGroups(text)) ||
        !parsed.setContent(&source, &reader, &reason.text, &reason.line, &reason.column)) {
        if (error != nullptr) {
            *error = reason;
        }
        return false;
    }
    document = parsed;
    return true;
}

} // namespace core::configuration
