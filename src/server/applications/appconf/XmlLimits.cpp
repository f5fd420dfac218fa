#include "server/applications/appconf/XmlLimits.h"

#include <QHash>
#include <QLatin1String>
#include <QXmlStreamReader>

#include <algorithm>
#include <array>

namespace core::configuration {
namespace {

constexpr QLatin1String kEntityDeclaration("<!ENTITY");

/// Markup whose content is not read as markup.
struct Passage {
    QLatin1String begin;
    QLatin1String end;
};

const std::array<Passage, 3> kPassages{{
    {QLatin1String("<!--"), QLatin1String("-->")},
    {QLatin1String("<![CDATA["), QLatin1String("]]>")},
    {QLatin1String("<?"), QLatin1String("?>")},
}};

/// \return where the passage that begins at \a at ends; \a at itself when none begins there
int EndOfPassage(const QString& xml, int at)
{
    const QStringRef rest = xml.midRef(at);
    const auto* passage = std::find_if(kPassages.begin(), kPassages.end(),
                                       [&](const Passage& entry) { return rest.startsWith(entry.begin); });
    if (passage == kPassages.end()) {
        return at;
    }
    const int end = xml.indexOf(passage->end, at + passage->begin.size());
    return end < 0 ? xml.size() : end;
}

/// Counts the words of a tag or declaration: what stands after a blank, and what stands in quotes, since
/// attributes need no blank between them.
/// \param at  in: the opening "<"; out: where the markup, or the part of it before the next, ends
int CountWords(const QString& xml, int& at)
{
    int words = 0;
    bool afterBlank = false;
    QChar quote;
    for (++at; at < xml.size(); ++at) {
        const QChar c = xml.at(at);
        if (!quote.isNull()) {
            quote = c == quote ? QChar() : quote;
        } else if (c == QLatin1Char('<') || c == QLatin1Char('>')) {
            break;
        } else if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
            quote = c;
            ++words;
        } else {
            words += afterBlank && !c.isSpace() ? 1 : 0;
            afterBlank = c.isSpace();
        }
    }
    return words;
}

/// A parameter entity brings declarations of its own, which nobody has counted.
bool DeclaresParameterEntity(const QStringRef& markup)
{
    return markup.startsWith(kEntityDeclaration) &&
           markup.mid(kEntityDeclaration.size()).trimmed().startsWith(QLatin1Char('%'));
}

XmlFlaw FlawAt(const QString& xml, int at, const QString& reason)
{
    const QStringRef before = xml.leftRef(at);
    return {reason, before.count(QLatin1Char('\n')) + 1, at - before.lastIndexOf(QLatin1Char('\n')) - 1};
}

/// Takes one pass over the text, since the readers need time in proportion to the square of these numbers.
std::optional<XmlFlaw> FindExcessOfMarkup(const QString& xml)
{
    int declarations = 0;
    for (int at = xml.indexOf(QLatin1Char('<')); at >= 0; at = xml.indexOf(QLatin1Char('<'), at)) {
        const int passageEnd = EndOfPassage(xml, at);
        if (passageEnd != at) {
            at = passageEnd;
            continue;
        }
        const int begin = at;
        const QStringRef markup = xml.midRef(begin);
        declarations += markup.startsWith(QLatin1String("<!")) ? 1 : 0;
        if (declarations > kMaxXmlDeclarations) {
            return FlawAt(xml, begin, QStringLiteral("more than %1 declarations").arg(kMaxXmlDeclarations));
        }
        if (DeclaresParameterEntity(markup)) {
            return FlawAt(xml, begin, QStringLiteral("a parameter entity is declared"));
        }
        if (CountWords(xml, at) > kMaxXmlWords) {
            return FlawAt(xml, begin,
                          QStringLiteral("a tag or declaration of more than %1 words").arg(kMaxXmlWords));
        }
    }
    return std::nullopt;
}

/// The declared entities and how much text each may stand for.
QHash<QString, qint64> EntitySizes(const QString& xml)
{
    QHash<QString, qint64> sizes;
    if (!xml.contains(kEntityDeclaration)) {
        return sizes;
    }
    QXmlStreamReader reader(xml);
    while (!reader.atEnd() && !reader.isDTD() && !reader.isStartElement()) {
        reader.readNext();
    }
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

XmlFlaw FlawAt(const QXmlStreamReader& reader, const QString& reason)
{
    return {reason, static_cast<int>(reader.lineNumber()), static_cast<int>(reader.columnNumber())};
}

qint64 TextOf(const QXmlStreamReader& reader)
{
    qint64 size = reader.text().size();
    for (const QXmlStreamAttribute& attribute : reader.attributes()) {
        size += attribute.value().size();
    }
    return size;
}

/// Reads the text once with a reader that does not recurse.
std::optional<XmlFlaw> FindExcessOfText(const QString& xml)
{
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    qint64 text = 0;
    while (!reader.atEnd()) {
        reader.readNext();
        depth += (reader.isStartElement() ? 1 : 0) - (reader.isEndElement() ? 1 : 0);
        text += TextOf(reader);
        if (depth > kMaxXmlDepth) {
            return FlawAt(reader,
                          QStringLiteral("elements are nested deeper than %1 levels").arg(kMaxXmlDepth));
        }
        if (text > kMaxXmlSize) {
            return FlawAt(reader,
                          QStringLiteral("the text expands to more than %1 characters").arg(kMaxXmlSize));
        }
    }
    if (reader.hasError()) {
        return FlawAt(reader, QStringLiteral("not well-formed: ") + reader.errorString());
    }
    return std::nullopt;
}

} // namespace

std::optional<XmlFlaw> FindXmlFlaw(const QString& xml)
{
    if (auto flaw = FindExcessOfMarkup(xml)) {
        return flaw;
    }
    // The bound also counts what looks like a reference in a comment, so it is not held against the limit
    // itself.
    constexpr qint64 kMaxExpandedSize = 16LL * kMaxXmlSize;
    if (ExpandedSize(xml) > kMaxExpandedSize) {
        return FlawAt(xml, 0,
                      QStringLiteral("entities expand to more than %1 characters").arg(kMaxExpandedSize));
    }
    return FindExcessOfText(xml);
}

} // namespace core::configuration
