#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdio>

namespace cli {

/// By the terminal's numbers.
enum class Style { Bold = 1, Red = 31, Yellow = 33 };

/// \return \a text in that style if \a stream is a terminal and the user wants colours (NO_COLOR, TERM)
QString Styled(const QString& text, Style style, FILE* stream = stdout);

/// \return \a text with control characters as \u and four digits: names and titles come from applications,
///         which could otherwise send commands to an administrator's terminal
QString Printable(const QString& text);

/// Writes a line to standard output at once, as UTF-8 whatever the locale.
void Print(const QString& line);

/// Writes a text to standard error as it stands.
void Tell(const QString& text);

/// Writes the program's name, the printable text and a line end to standard error.
void Complain(const QString& text);

/// Columns as wide as their widest cell; empty cells show as "-".
class Table {
public:
    /// A table with headings is shortened to the width of the terminal, one without is not.
    explicit Table(QStringList headings = {});

    void Add(const QStringList& row) { m_rows.append(row); }
    bool IsEmpty() const { return m_rows.isEmpty(); }
    void Print(int indent = 0) const;

private:
    QVector<int> Widths(int indent) const;

    QStringList m_headings;
    QVector<QStringList> m_rows;
};

} // namespace cli
