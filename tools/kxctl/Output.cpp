#include "Output.h"

#include <QDBusArgument>
#include <QDBusVariant>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace kxctl {
namespace {

constexpr int kGap = 2;

bool WantsColour(FILE* stream)
{
    return isatty(fileno(stream)) != 0 && qgetenv("NO_COLOR").isEmpty() && qgetenv("TERM") != "dumb";
}

const char* Sequence(Style style)
{
    switch (style) {
    case Style::Bold:
        return "\033[1m";
    case Style::Red:
        return "\033[31m";
    case Style::Yellow:
        return "\033[33m";
    case Style::Plain:
        break;
    }
    return "";
}

/// A failure stays on record with the stream; main looks at it in the end.
void Write(const QString& text, FILE* stream)
{
    const QByteArray bytes = text.toUtf8();
    static_cast<void>(std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream));
}

QString Cell(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("-") : Printable(text);
}

int WidthOf(const QString& text)
{
    return text.toUcs4().size();
}

QString Joined(const QStringList& cells, const QVector<int>& widths, int indent)
{
    QString line(indent, ' ');
    for (int column = 0; column < cells.size(); ++column) {
        const QString text = Cell(cells.at(column));
        line += text;
        if (column + 1 < cells.size()) {
            line += QString(widths.at(column) - WidthOf(text) + kGap, ' ');
        }
    }
    return line;
}

QVariant FromArgument(const QDBusArgument& argument)
{
    switch (argument.currentType()) {
    case QDBusArgument::ArrayType: {
        QVariantList list;
        argument.beginArray();
        while (!argument.atEnd()) {
            list.append(Plain(argument.asVariant()));
        }
        argument.endArray();
        return list;
    }
    case QDBusArgument::MapType: {
        QVariantMap map;
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = argument.asVariant().toString();
            map.insert(key, Plain(argument.asVariant()));
            argument.endMapEntry();
        }
        argument.endMap();
        return map;
    }
    default:
        return Plain(argument.asVariant());
    }
}

/// Where JSON holds anything that a terminal could act on, it stands inside a text and may be escaped.
QString PrintableJson(const QByteArray& json)
{
    QStringList lines = QString::fromUtf8(json).trimmed().split('\n');
    std::transform(lines.begin(), lines.end(), lines.begin(), Printable);
    return lines.join('\n');
}

} // namespace

QString Styled(const QString& text, Style style, FILE* stream)
{
    return style == Style::Plain || !WantsColour(stream) ? text : Sequence(style) + text + "\033[0m";
}

QString Printable(const QString& text)
{
    constexpr int kDigits = 4;
    constexpr int kHexadecimal = 16;
    QString result;
    for (const QChar character : text) {
        const bool isHarmless = character.isPrint() || character.isSurrogate();
        result += isHarmless ? QString(character)
                             : QStringLiteral("\\u%1").arg(character.unicode(), kDigits, kHexadecimal,
                                                           QLatin1Char('0'));
    }
    return result;
}

void Print(const QString& line)
{
    Write(line + '\n', stdout);
}

void Flush()
{
    static_cast<void>(std::fflush(stdout));
}

void Tell(const QString& text)
{
    Write(text, stderr);
}

void Complain(const QString& text)
{
    Tell(Styled("kxctl:", Style::Red, stderr) + ' ' + Printable(text) + '\n');
}

QVariant Plain(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusArgument>()) {
        return FromArgument(value.value<QDBusArgument>());
    }
    if (value.userType() == qMetaTypeId<QDBusVariant>()) {
        return Plain(value.value<QDBusVariant>().variant());
    }
    if (value.userType() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (QVariant& entry : map) {
            entry = Plain(entry);
        }
        return map;
    }
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant& entry : list) {
            entry = Plain(entry);
        }
        return list;
    }
    return value;
}

void PrintJson(const QVariant& value, bool isOneLine)
{
    const QJsonValue json = QJsonValue::fromVariant(Plain(value));
    const QJsonDocument document =
        json.isArray() ? QJsonDocument(json.toArray()) : QJsonDocument(json.toObject());
    const auto format = isOneLine ? QJsonDocument::Compact : QJsonDocument::Indented;
    Print(PrintableJson(document.toJson(format)));
    Flush();
}

QString ToText(const QVariant& value)
{
    const QVariant plain = Plain(value);
    switch (plain.userType()) {
    case QMetaType::Bool:
        return plain.toBool() ? "yes" : "no";
    case QMetaType::QVariantMap:
        return QJsonDocument(QJsonObject::fromVariantMap(plain.toMap())).toJson(QJsonDocument::Compact);
    case QMetaType::QVariantList:
        return QJsonDocument(QJsonArray::fromVariantList(plain.toList())).toJson(QJsonDocument::Compact);
    default:
        return plain.toString();
    }
}

Table::Table(QStringList headings) : m_headings(std::move(headings)) {}

QVector<int> Table::Widths() const
{
    QVector<int> widths;
    const auto widen = [&widths](const QStringList& row) {
        widths.resize(std::max(widths.size(), row.size()));
        for (int column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths.at(column), WidthOf(Cell(row.at(column))));
        }
    };
    widen(m_headings);
    std::for_each(m_rows.begin(), m_rows.end(), widen);
    return widths;
}

QStringList Table::Lines(int indent) const
{
    const QVector<int> widths = Widths();
    QStringList lines;
    if (!m_headings.isEmpty()) {
        lines.append(Styled(Joined(m_headings, widths, indent), Style::Bold));
    }
    for (const QStringList& row : m_rows) {
        lines.append(Joined(row, widths, indent));
    }
    return lines;
}

void Table::Print(int indent) const
{
    for (const QString& line : Lines(indent)) {
        kxctl::Print(line);
    }
}

} // namespace kxctl
