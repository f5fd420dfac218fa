#include "Prompt.h"

#include "Processes.h"
#include "Views.h"

#include <QProcess>

#include <csignal>
#include <utility>

namespace {

constexpr int kLogLines = 20;

} // namespace

const QList<Prompt::Command>& Prompt::Commands()
{
    static const QList<Command> commands = {
        {"help", "", "list the commands", &Prompt::Help},
        {"apps", "", "list the installed applications", &Prompt::Apps},
        {"ps", "", "list the processes and their accounts", &Prompt::Processes},
        {"start", "APP BIN [PARAMS]", "start a program of an application", &Prompt::Start},
        {"boot", "", "start all applications over", &Prompt::Boot},
        {"terminate", "", "end all applications", &Prompt::Terminate},
        {"restart", "", "restart the terminal (the reboot is only recorded)", &Prompt::Restart},
        {"page", "[PAGE]", "show what is on the screen, or a page there: pay/index.html", &Prompt::Page},
        {"log", "[COUNT]", "show the newest log records", &Prompt::Log},
        {"quit", "", "switch the terminal off", &Prompt::Leave}};
    return commands;
}

Prompt::Prompt(Terminal& terminal, Screen& screen, const LogTail& log, QObject* parent)
    : QObject(parent), m_terminal(terminal), m_screen(screen), m_log(log), m_editor(screen)
{
    // A command may wait for events, and with them for the next line: one after the other.
    connect(&m_editor, &LineEditor::LineEntered, this, &Prompt::Take, Qt::QueuedConnection);
    connect(&m_editor, &LineEditor::Interrupted, this, &Prompt::Interrupt);
    connect(&m_editor, &LineEditor::Closed, this, &Prompt::Quit);
}

Prompt::~Prompt()
{
    Signal(SIGKILL);
    const auto running = findChildren<QProcess*>();
    for (QProcess* process : running) {
        process->disconnect(this);
        process->kill();
        process->waitForFinished();
    }
}

bool Prompt::Signal(int signal)
{
    bool runs = false;
    const auto processes = findChildren<QProcess*>();
    for (const QProcess* process : processes) {
        if (process->state() == QProcess::Running) {
            runs = true;
            // Each is a session of its own.
            kill(-static_cast<pid_t>(process->processId()), signal);
        }
    }
    return runs;
}

void Prompt::Interrupt()
{
    if (!Signal(SIGINT)) {
        emit Quit();
    }
}

void Prompt::Take(const QString& line)
{
    m_begun += line;
    if (m_begun.endsWith(QLatin1Char('\\'))) {
        m_begun.chop(1);
        return;
    }
    Execute(std::exchange(m_begun, {}));
}

void Prompt::Execute(const QString& line)
{
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.isEmpty()) {
        return;
    }
    for (const Command& command : Commands()) {
        if (words.first() == QLatin1String(command.name)) {
            (this->*command.run)(words.mid(1));
            return;
        }
    }
    RunInShell(line);
}

void Prompt::RunInShell(const QString& line)
{
    auto* const process = new QProcess(this);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    connect(process, &QProcess::readyRead, this, [this, process] {
        while (process->canReadLine()) {
            m_screen.Line(QStringLiteral("  ") + QString::fromUtf8(process->readLine()).chopped(1));
        }
    });
    connect(process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            [this, process](int status) {
                if (status != 0) {
                    Report(false, QStringLiteral("exit status %1").arg(status));
                }
                process->deleteLater();
            });
    process->start(QStringLiteral("setsid"), {QStringLiteral("/bin/sh"), QStringLiteral("-c"), line});
}

void Prompt::Report(bool success, const QString& text)
{
    m_screen.Line(QStringLiteral("  ") + m_screen.Styled(success ? Style::Good : Style::Bad, text));
}

void Prompt::Help(const QStringList&)
{
    QList<QStringList> rows;
    for (const Command& command : Commands()) {
        rows.append({QLatin1String(command.name), QLatin1String(command.arguments),
                     QLatin1String(command.description)});
    }
    rows.append({QStringLiteral("..."), QString(),
                 QStringLiteral("anything else runs in the terminal's shell: kxctl, busctl, ls")});
    m_screen.Table({QStringLiteral("command"), QString(), QString()}, rows);
}

void Prompt::Apps(const QStringList&)
{
    ShowApplications(m_screen, m_terminal.Enumerate());
}

void Prompt::Processes(const QStringList&)
{
    ShowProcesses(m_screen, ListProcesses());
}

void Prompt::Start(const QStringList& words)
{
    if (words.size() < 2) {
        Report(false, QStringLiteral("start APP BIN [PARAMS]"));
        return;
    }
    const QVariantMap result =
        m_terminal.Start({{QStringLiteral("application"), words[0]},
                          {QStringLiteral("binary"), words[1]},
                          {QStringLiteral("params"), words.mid(2).join(QLatin1Char(' '))}});
    const bool success = result.value(QStringLiteral("errorCode"), -1).toInt() == 0;
    const QString text = result.value(QStringLiteral("errorText"), m_terminal.LastError()).toString();
    Report(success, success ? QStringLiteral("started") : text);
}

void Prompt::Boot(const QStringList&)
{
    const bool success = m_terminal.Start({}).value(QStringLiteral("return")).toBool();
    Report(success, success ? QStringLiteral("starting over") : m_terminal.LastError());
}

void Prompt::Terminate(const QStringList&)
{
    const bool success = m_terminal.Terminate();
    Report(success, success ? QStringLiteral("all applications are ended") : m_terminal.LastError());
}

void Prompt::Restart(const QStringList&)
{
    const bool success = m_terminal.Restart();
    Report(success, success ? QStringLiteral("restarting; \"boot\" starts the applications again")
                            : m_terminal.LastError());
}

void Prompt::Page(const QStringList& words)
{
    if (words.isEmpty()) {
        ShowPage(m_screen, m_terminal.CurrentPage());
    } else if (!m_terminal.ShowPage(QStringLiteral("/cgi-bin/page/show?path=") + words.first())) {
        Report(false, m_terminal.LastError());
    }
}

void Prompt::Log(const QStringList& words)
{
    bool isNumber = false;
    const int wanted = words.value(0).toInt(&isNumber);
    const QStringList& lines = m_log.Lines();
    for (const QString& line : lines.mid(qMax(0, lines.size() - (isNumber ? wanted : kLogLines)))) {
        ShowLogLine(m_screen, line);
    }
}

void Prompt::Leave(const QStringList&)
{
    emit Quit();
}
