#include "StoreText.h"

#include <QTextCodec>

#include <optional>

namespace com::veltrasys::registry {

namespace {

constexpr auto kHeading =
    "; The registry of this terminal. Change it with kxregistry; comments are not kept.\n";
constexpr int kHexDigits = 4;
constexpr int kHexBase = 16;

/// The characters that have an escape of one letter, and these letters at the same index.
const QString kNamedCharacters = QStringLiteral("\\\n\r\t");
const QString kNames = QStringLiteral("\\nrt");

bool IsEdgeBlank(const QString& text, int index)
{
    return (index == 0 || index == text.size() - 1) && text[index].isSpace();
}

bool IsUnpairedSurrogate(const QString& text, int index)
{
    const QChar character = text[index];
    if (character.isHighSurrogate()) {
        return index + 1 == text.size() || !text[index + 1].isLowSurrogate();
    }
    return character.isLowSurrogate() && (index == 0 || !text[index - 1].isHighSurrogate());
}

bool BreaksLine(QChar character)
{
    return character.category() == QChar::Other_Control || character == QChar::LineSeparator ||
           character == QChar::ParagraphSeparator;
}

bool BreaksKey(const QString& key, int index)
{
    return key[index] == '=' || (index == 0 && QStringLiteral(";#[").contains(key[index]));
}

bool NeedsHex(const QString& text, int index)
{
    return BreaksLine(text[index]) || IsEdgeBlank(text, index) || IsUnpairedSurrogate(text, index);
}

QString Hex(QChar character)
{
    return QStringLiteral("\\x%1").arg(character.unicode(), kHexDigits, kHexBase, QLatin1Char('0'));
}

template<typename Predicate>
QString Escape(const QString& text, Predicate needsHex)
{
    QString escaped;
    for (int index = 0; index < text.size(); ++index) {
        const int named = kNamedCharacters.indexOf(text[index]);
        if (named >= 0) {
            escaped += '\\';
            escaped += kNames[named];
        } else if (needsHex(text, index)) {
            escaped += Hex(text[index]);
        } else {
            escaped += text[index];
        }
    }
    return escaped;
}

/// Reads the escape behind the backslash at \a index and leaves \a index on its last character.
std::optional<QChar> ReadEscape(const QString& text, int& index)
{
    ++index;
    const int named = index < text.size() ? kNames.indexOf(text[index]) : -1;
    if (named >= 0) {
        return kNamedCharacters[named];
    }
    const QString digits = text.mid(index + 1, kHexDigits);
    bool valid = false;
    const ushort unit = digits.toUShort(&valid, kHexBase);
    if (index >= text.size() || text[index] != 'x' || digits.size() != kHexDigits || !valid) {
        return std::nullopt;
    }
    index += kHexDigits;
    return QChar(unit);
}

std::optional<QString> Unescape(const QString& text)
{
    // Not null, even without a character: an empty value is not an absent one.
    QString plain(QLatin1String(""));
    for (int index = 0; index < text.size(); ++index) {
        if (text[index] != '\\') {
            plain += text[index];
            continue;
        }
        const std::optional<QChar> character = ReadEscape(text, index);
        if (!character) {
            return std::nullopt;
        }
        plain += *character;
    }
    return plain;
}

bool IsComment(const QString& line)
{
    return line.isEmpty() || line.startsWith(';') || line.startsWith('#');
}

bool ParseLine(const QString& line, Entries& entries)
{
    const int equals = line.indexOf('=');
    const std::optional<QString> key = Unescape(line.left(equals).trimmed());
    const std::optional<QString> value = Unescape(line.mid(equals + 1).trimmed());
    if (equals < 0 || line.startsWith('[') || !key || key->isEmpty() || !value) {
        return false;
    }
    entries.insert(*key, *value);
    return true;
}

std::optional<QString> Decode(const QByteArray& text)
{
    QTextCodec::ConverterState state;
    const QString decoded =
        QTextCodec::codecForName("UTF-8")->toUnicode(text.constData(), text.size(), &state);
    if (state.invalidChars > 0 || state.remainingChars > 0) {
        return std::nullopt;
    }
    return decoded;
}

} // namespace

QString EscapeKey(const QString& key)
{
    return Escape(
        key, [](const QString& text, int index) { return NeedsHex(text, index) || BreaksKey(text, index); });
}

QString EscapeValue(const QString& value)
{
    return Escape(value, NeedsHex);
}

Content ParseStore(const QByteArray& text)
{
    const std::optional<QString> decoded = Decode(text);
    if (!decoded) {
        return {{}, QStringLiteral("not UTF-8")};
    }
    Content content;
    const QStringList lines = decoded->split('\n');
    for (int index = 0; index < lines.size(); ++index) {
        const QString line = lines[index].trimmed();
        if (!IsComment(line) && !ParseLine(line, content.entries)) {
            return {{}, QStringLiteral("line %1 is not KEY=VALUE").arg(index + 1)};
        }
    }
    return content;
}

QByteArray FormatStore(const Entries& entries)
{
    QString text = QString::fromLatin1(kHeading);
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        text += EscapeKey(entry.key()) + '=' + EscapeValue(entry.value()) + '\n';
    }
    return text.toUtf8();
}

} // namespace com::veltrasys::registry
