#include "Screen.h"

#include <QMap>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

// Blue and bright colours that can be read on dark and on light backgrounds.
const char* CodeOf(Style style)
{
    static const QMap<Style, const char*> codes = {{Style::Heading, "1;36"},
                                                   {Style::Dim, "2"},
                                                   {Style::Good, "32"},
                                                   {Style::Bad, "1;31"},
                                                   {Style::Name, "1"}};
    return codes.value(style, "0");
}

QList<int> WidthsOf(const QStringList& head, const QList<QStringList>& rows)
{
    QList<int> widths;
    for (int column = 0; column < head.size(); ++column) {
        int width = head[column].size();
        for (const QStringList& row : rows) {
            width = std::max(width, row.value(column).size());
        }
        widths.append(width);
    }
    return widths;
}

} // namespace

Screen::Screen()
    : m_coloured(isatty(STDOUT_FILENO) == 1 && qEnvironmentVariableIsEmpty("NO_COLOR")),
      m_out(stdout, QIODevice::WriteOnly)
{
    m_out.setCodec("UTF-8");
}

QString Screen::Styled(Style style, const QString& text) const
{
    if (!m_coloured || style == Style::Plain) {
        return text;
    }
    return QStringLiteral("\033[") + QLatin1String(CodeOf(style)) + QLatin1Char('m') + text +
           QStringLiteral("\033[0m");
}

void Screen::Line(const QString& text)
{
    if (!m_prompt.isEmpty()) {
        m_out << "\r\033[K";
    }
    m_out << text << "\n" << m_prompt << Qt::flush;
}

void Screen::Heading(const QString& title)
{
    Line();
    Line(Styled(Style::Heading, title));
}

void Screen::Row(const QStringList& cells, const QList<int>& widths, bool isHead)
{
    QString line = QStringLiteral("  ");
    for (int column = 0; column < cells.size(); ++column) {
        const bool isLast = column + 1 == cells.size();
        const QString cell = isLast ? cells[column] : cells[column].leftJustified(widths[column] + 2);
        line += Styled(isHead ? Style::Dim : column == 0 ? Style::Name : Style::Plain, cell);
    }
    Line(line);
}

void Screen::Table(const QStringList& head, const QList<QStringList>& rows)
{
    const QList<int> widths = WidthsOf(head, rows);
    Row(head, widths, true);
    for (const QStringList& row : rows) {
        Row(row, widths, false);
    }
}

void Screen::SetPrompt(const QString& prompt)
{
    if (!m_prompt.isEmpty() || !prompt.isEmpty()) {
        m_out << "\r\033[K";
    }
    m_prompt = prompt;
    m_out << m_prompt << Qt::flush;
}
