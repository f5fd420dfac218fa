#include "Output.h"

#include <QCoreApplication>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

namespace cli {
namespace {

constexpr int kGap = 2;
constexpr int kNarrowest = 6; ///< columns are not shortened below this

/// A failure stays on record with the stream; Main looks at it in the end.
void Write(const QString& text, FILE* stream)
{
    const QByteArray bytes = text.toUtf8();
    static_cast<void>(std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream));
    static_cast<void>(std::fflush(stream));
}

/// \return the columns of the terminal; no bound when standard output is none
int TerminalWidth()
{
    winsize size = {};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : std::numeric_limits<int>::max();
}

QVector<uint> Cell(const QString& text)
{
    return text.isEmpty() ? QVector<uint>{'-'} : Printable(text).toUcs4();
}

QString Joined(const QStringList& cells, const QVector<int>& widths, int indent)
{
    QString line(indent, ' ');
    for (int column = 0; column < cells.size(); ++column) {
        QVector<uint> text = Cell(cells.at(column));
        if (text.size() > widths.at(column)) {
            text = text.mid(0, widths.at(column) - 1) << QChar(0x2026).unicode();
        }
        line += QString::fromUcs4(text.constData(), text.size());
        if (column + 1 < cells.size()) {
            line += QString(widths.at(column) - text.size() + kGap, ' ');
        }
    }
    return line;
}

} // namespace

QString Styled(const QString& text, Style style, FILE* stream)
{
    const bool isWanted =
        isatty(fileno(stream)) != 0 && qgetenv("NO_COLOR").isEmpty() && qgetenv("TERM") != "dumb";
    return isWanted ? "\033[" + QString::number(static_cast<int>(style)) + 'm' + text + "\033[0m" : text;
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

void Tell(const QString& text)
{
    Write(text, stderr);
}

void Complain(const QString& text)
{
    const QString name = QCoreApplication::applicationName() + ':';
    Tell(Styled(name, Style::Red, stderr) + ' ' + Printable(text) + '\n');
}

Table::Table(QStringList headings) : m_headings(std::move(headings)) {}

QVector<int> Table::Widths(int indent) const
{
    QVector<int> widths;
    const auto widen = [&widths](const QStringList& row) {
        widths.resize(std::max(widths.size(), row.size()));
        for (int column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths.at(column), Cell(row.at(column)).size());
        }
    };
    widen(m_headings);
    std::for_each(m_rows.begin(), m_rows.end(), widen);
    if (m_headings.isEmpty()) {
        return widths;
    }
    const int room = TerminalWidth() - indent - kGap * (widths.size() - 1);
    int excess = std::accumulate(widths.begin(), widths.end(), -room);
    while (excess-- > 0) {
        int& widest = *std::max_element(widths.begin(), widths.end());
        widest = std::max(widest - 1, kNarrowest);
    }
    return widths;
}

void Table::Print(int indent) const
{
    const QVector<int> widths = Widths(indent);
    if (!m_headings.isEmpty()) {
        cli::Print(Styled(Joined(m_headings, widths, indent), Style::Bold));
    }
    for (const QStringList& row : m_rows) {
        cli::Print(Joined(row, widths, indent));
    }
}

} // namespace cli
