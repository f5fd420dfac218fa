#include "AppWatch.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QProcess>

namespace {

constexpr int kSettleMs = 300;

// What the program prints; nothing when it cannot be run.
QStringList OutputOf(const QString& program, const QStringList& arguments, int* status)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    *status =
        process.waitForFinished() && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return QString::fromUtf8(process.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

AppWatch::AppWatch(QString directory, Terminal& terminal, Screen& screen)
    : m_directory(std::move(directory)), m_terminal(terminal), m_screen(screen)
{
    if (m_directory.isEmpty()) {
        return;
    }
    m_settled.setSingleShot(true);
    m_settled.setInterval(kSettleMs);
    const auto settle = [this] { m_settled.start(); };
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, settle);
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, settle);
    connect(&m_settled, &QTimer::timeout, this, &AppWatch::Reinstall);
    Watch();
    Check();
}

// A file that an editor replaces is no longer watched, so all are asked for each time.
void AppWatch::Watch()
{
    QStringList paths = {m_directory};
    QDirIterator entries(m_directory, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        paths.append(entries.next());
    }
    const QStringList watched = m_watcher.files() + m_watcher.directories();
    if (!watched.isEmpty()) {
        m_watcher.removePaths(watched);
    }
    m_watcher.addPaths(paths);
}

void AppWatch::Check()
{
    // The home and not the directory itself, since the account that owns it is looked at too.
    const QString home = QStringLiteral("/home/") + m_directory.section(QLatin1Char('/'), -1);
    int status = 0;
    const QStringList problems = OutputOf(QStringLiteral("kxctl"), {QStringLiteral("check"), home}, &status);
    m_screen.Heading(QStringLiteral("Your application"));
    for (const QString& line : problems) {
        m_screen.Line(m_screen.Styled(status == 0 ? Style::Good : Style::Bad, QStringLiteral("  ") + line));
    }
}

void AppWatch::Reinstall()
{
    Watch();
    m_screen.Line(m_screen.Styled(Style::Dim, QStringLiteral("  > your application has changed")));
    m_terminal.Terminate();
    int status = 0;
    const QString install = QCoreApplication::applicationDirPath() + QStringLiteral("/install-application");
    const QStringList output = OutputOf(install, {m_directory, QStringLiteral("app5")}, &status);
    if (status != 0) {
        m_screen.Line(m_screen.Styled(Style::Bad, QStringLiteral("  ") + output.join(QLatin1Char(' '))));
    }
    m_terminal.Start({});
    Check();
}
