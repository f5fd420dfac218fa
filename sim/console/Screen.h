// What the console prints: headings, tables, outcomes. Colour is used on a terminal only and not when
// NO_COLOR is set; a prompt line, if there is one, stays below everything that is printed.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QTextStream>

enum class Style { Plain, Heading, Dim, Good, Bad, Name };

class Screen {
public:
    Screen();

    // The text in the colour of the style; the text itself where there is no colour.
    QString Styled(Style style, const QString& text) const;

    void Line(const QString& text = QString());
    void Heading(const QString& title);
    // An indented table: a dimmed head, columns as wide as their widest cell, the first one set off.
    void Table(const QStringList& head, const QList<QStringList>& rows);

    // The line that is kept last on the screen; an empty text takes it away.
    void SetPrompt(const QString& prompt);

private:
    void Row(const QStringList& cells, const QList<int>& widths, bool isHead);

    bool m_coloured;
    QString m_prompt;
    QTextStream m_out;
};
