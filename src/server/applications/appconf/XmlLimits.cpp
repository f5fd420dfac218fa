#include "server/applications/appconf/XmlLimits.h"

#include <QHash>
#include <QLatin1String>
#include <QXmlStreamReader>

#include <algorithm>
#include <array>

namespace core::configuration {
namespace {

constexpr auto kTooDeep = "elements are nested deeper than %1 levels";

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

/// \return what follows the "<" at \a at
QChar AfterBracket(const QString& xml, int at)
{
    return at + 1 < xml.size() ? xml.at(at + 1) : QChar();
}

/// \return whether a tag begins at \a at, and not a passage or a declaration
bool IsTag(const QString& xml, int at)
{
    const QChar next = AfterBracket(xml, at);
    return next != QLatin1Char('!') && next != QLatin1Char('?');
}

/// A parameter entity brings declarations of its own, which nobody has counted.
bool DeclaresParameterEntity(const QStringRef& markup)
{
    const QLatin1String begin("<!ENTITY");
    if (!markup.startsWith(begin)) {
        return false;
    }
    const auto* name = std::find_if_not(markup.begin() + begin.size(), markup.end(),
                                        [](QChar character) { return character.isSpace(); });
    return name != markup.end() && *name == QLatin1Char('%');
}

XmlFlaw FlawAt(const QString& xml, int at, const QString& reason)
{
    const QStringRef before = xml.leftRef(at);
    return {reason, before.count(QLatin1Char('\n')) + 1, at - before.lastIndexOf(QLatin1Char('\n')) - 1};
}

/// \param begin, end  a tag from its opening "<" to where CountWords found its end
/// \return by how many levels what follows is nested deeper
int DepthChange(const QString& xml, int begin, int end)
{
    if (AfterBracket(xml, begin) == QLatin1Char('/')) {
        return -1;
    }
    return xml.at(end - 1) == QLatin1Char('/') ? 0 : 1;
}

/// Takes one pass over the text, since the reader recurses for each level, and needs time in proportion to
/// the square of the other numbers. Both read the same markup as long as it is well-formed; the reader goes
/// no further.
std::optional<XmlFlaw> FindExcessOfMarkup(const QString& xml)
{
    int declarations = 0;
    int depth = 0;
    for (int at = xml.indexOf(QLatin1Char('<')); at >= 0; at = xml.indexOf(QLatin1Char('<'), at)) {
        const int begin = at;
        const bool isTag = IsTag(xml, begin);
        if (!isTag) {
            at = EndOfPassage(xml, begin);
            if (at != begin) {
                continue;
            }
            if (DeclaresParameterEntity(xml.midRef(begin))) {
                return FlawAt(xml, begin, QStringLiteral("a parameter entity is declared"));
            }
            if (++declarations > kMaxXmlDeclarations) {
                return FlawAt(xml, begin,
                              QStringLiteral("more than %1 declarations").arg(kMaxXmlDeclarations));
            }
        }
        if (CountWords(xml, at) > kMaxXmlWords) {
            return FlawAt(xml, begin,
                          QStringLiteral("a tag or declaration of more than %1 words").arg(kMaxXmlWords));
        }
        depth += isTag ? DepthChange(xml, begin, at) : 0;
        if (depth > kMaxXmlDepth) {
            return FlawAt(xml, begin, QString::fromLatin1(kTooDeep).arg(kMaxXmlDepth));
        }
    }
    return std::nullopt;
}

/// The declared entities, and how much text each stands for, found without expanding any: a reader puts the
/// text between two tags together in memory before it shows any of it.
class Entities {
public:
    explicit Entities(const QString& xml)
    {
        QXmlStreamReader reader(xml);
        while (!reader.atEnd() && !reader.isDTD() && !reader.isStartElement()) {
            reader.readNext();
        }
        const QXmlStreamEntityDeclarations declarations = reader.entityDeclarations();
        for (const QXmlStreamEntityDeclaration& entity : declarations) {
            m_values.insert(entity.name().toString(), entity.value().toString());
        }
    }

    /// \return how much text all references in \a text stand for; an upper bound, since what looks like one
    ///         in a comment counts, too
    qint64 ExpandedSize(const QString& text)
    {
        qint64 total = 0;
        int begin = -1;
        for (int at = 0; at < text.size() && !m_values.isEmpty(); ++at) {
            if (text.at(at) == QLatin1Char('&')) {
                begin = at + 1;
            } else if (text.at(at) == QLatin1Char(';') && begin >= 0) {
                total += SizeOf(text.mid(begin, at - begin));
                begin = -1;
            }
        }
        return total;
    }

private:
    /// One that refers to itself counts as too much.
    qint64 SizeOf(const QString& entity)
    {
        if (!m_values.contains(entity)) {
            return 0;
        }
        const auto known = m_sizes.constFind(entity);
        if (known != m_sizes.constEnd()) {
            return *known;
        }
        m_sizes.insert(entity, kTooMuch);
        const QString value = m_values.value(entity);
        const qint64 size = std::min(kTooMuch, value.size() + ExpandedSize(value));
        m_sizes.insert(entity, size);
        return size;
    }

    static constexpr qint64 kTooMuch = 1LL << 32;

    QHash<QString, QString> m_values;
    QHash<QString, qint64> m_sizes;
};

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

/// Reads the text once with a reader that does not recurse: elements, too, may come out of entities.
std::optional<XmlFlaw> FindExcessOfText(const QString& xml)
{
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    reader.setEntityExpansionLimit(kMaxXmlSize);
    int depth = 0;
    qint64 text = 0;
    while (!reader.atEnd()) {
        reader.readNext();
        depth += (reader.isStartElement() ? 1 : 0) - (reader.isEndElement() ? 1 : 0);
        text += TextOf(reader);
        if (depth > kMaxXmlDepth) {
            return FlawAt(reader, QString::fromLatin1(kTooDeep).arg(kMaxXmlDepth));
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
    if (!xml.contains(QLatin1String("<!ENTITY"))) {
        return std::nullopt; // the text is what it is
    }
    // An upper bound is not held against the limit itself.
    constexpr qint64 kMaxExpandedSize = 16LL * kMaxXmlSize;
    if (Entities(xml).ExpandedSize(xml) > kMaxExpandedSize) {
        return FlawAt(xml, 0,
                      QStringLiteral("entities expand to more than %1 characters").arg(kMaxExpandedSize));
    }
    return FindExcessOfText(xml);
}

} // namespace core::configuration
