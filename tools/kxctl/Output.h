#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <cstdio>

namespace kxctl {

enum class Style { Plain, Bold, Red, Yellow };

/// \return \a text in that style if \a stream is a terminal and the user wants colours (NO_COLOR, TERM)
QString Styled(const QString& text, Style style, FILE* stream = stdout);

/// \return \a text without anything that a terminal would obey or that would break the line: names and titles
///         come from applications, which are not to be trusted with the terminal of an administrator
QString Printable(const QString& text);

/// Writes a line to standard output, as UTF-8 whatever the locale.
void Print(const QString& line);

/// Hands on what was printed so far.
void Flush();

/// Writes a text to standard error as it stands.
void Tell(const QString& text);

/// Writes "kxctl: ", the printable text and a line end to standard error.
void Complain(const QString& text);

/// Turns what arrives from the bus into plain lists, maps and values.
QVariant Plain(const QVariant& value);

/// Writes a value as a JSON document: indented, or as one line.
void PrintJson(const QVariant& value, bool isOneLine = false);

/// \return a value for people: yes or no for a bool, JSON for lists and maps
QString ToText(const QVariant& value);

/// Columns as wide as their widest cell; empty cells show as "-".
class Table {
public:
    /// A table without headings has none printed.
    explicit Table(QStringList headings = {});

    void Add(const QStringList& row) { m_rows.append(row); }
    bool IsEmpty() const { return m_rows.isEmpty(); }

    /// \return the lines, each beginning with \a indent blanks
    QStringList Lines(int indent = 0) const;

    void Print(int indent = 0) const;

private:
    QVector<int> Widths() const;

    QStringList m_headings;
    QVector<QStringList> m_rows;
};

} // namespace kxctl
