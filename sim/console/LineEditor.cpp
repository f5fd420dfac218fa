#include "LineEditor.h"

#include <array>
#include <unistd.h>

namespace {

constexpr char kInterrupt = 3;
constexpr char kEndOfInput = 4;
constexpr char kBackspace = 8;
constexpr char kEraseLine = 21;
constexpr char kEscape = 27;
constexpr char kDelete = 127;

} // namespace

LineEditor::LineEditor(Screen& screen, QObject* parent)
    : QObject(parent), m_screen(screen), m_notifier(STDIN_FILENO, QSocketNotifier::Read)
{
    tcgetattr(STDIN_FILENO, &m_saved);
    termios keyByKey = m_saved;
    keyByKey.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    tcsetattr(STDIN_FILENO, TCSADRAIN, &keyByKey);
    connect(&m_notifier, &QSocketNotifier::activated, this, &LineEditor::ReadKeys);
    Show();
}

LineEditor::~LineEditor()
{
    m_screen.SetPrompt(QString());
    tcsetattr(STDIN_FILENO, TCSADRAIN, &m_saved);
}

void LineEditor::ReadKeys()
{
    std::array<char, 256> keys{};
    const ssize_t count = read(STDIN_FILENO, keys.data(), keys.size());
    if (count <= 0) {
        m_notifier.setEnabled(false);
        emit Closed();
        return;
    }
    for (ssize_t i = 0; i < count; ++i) {
        Take(keys.at(static_cast<std::size_t>(i)));
    }
    Show();
}

void LineEditor::Take(char key)
{
    const bool isPrintable = static_cast<unsigned char>(key) >= ' ' && key != kDelete;
    if (m_inEscape) {
        // Cursor keys and the like, which end with a letter or "~", are passed over.
        m_inEscape = key == '[' || key == 'O' || (key >= '0' && key <= ';');
    } else if (key == kEscape) {
        m_inEscape = true;
    } else if (key == kInterrupt) {
        emit Interrupted();
    } else if (key == kEndOfInput && m_line.isEmpty()) {
        emit Closed();
    } else if (key == '\n' || key == '\r') {
        m_screen.SetPrompt(QString());
        const QString line = QString::fromLocal8Bit(std::exchange(m_line, {}));
        m_screen.Line(m_screen.Styled(Style::Name, QStringLiteral("kx> ")) + line);
        emit LineEntered(line);
    } else if (key == kBackspace || key == kDelete) {
        m_line.chop(1);
    } else if (key == kEraseLine) {
        m_line.clear();
    } else if (isPrintable) {
        m_line += key;
    }
}

void LineEditor::Show()
{
    m_screen.SetPrompt(m_screen.Styled(Style::Name, QStringLiteral("kx> ")) + QString::fromLocal8Bit(m_line));
}
