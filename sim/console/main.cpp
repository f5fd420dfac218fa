// The console of the desk terminal: shows what happens on it, takes commands, or with --once drives it
// through its main jobs and checks them.
#include "AppWatch.h"
#include "Checks.h"
#include "LogTail.h"
#include "Prompt.h"
#include "Screen.h"
#include "Terminal.h"
#include "Views.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSet>

#include <unistd.h>

namespace {

constexpr int kTimeStampLength = 15;
constexpr int kFirstPageMs = 2000;

void ShowRecords(const LogTail& log, Screen& screen)
{
    QObject::connect(&log, &LogTail::Appended, &log, [&](const QString& line) { ShowLogLine(screen, line); });
}

// The applications are enumerated again and again in a short time, which repeats what the log has to say.
void ShowNewRecords(const LogTail& log, Screen& screen)
{
    QObject::connect(&log, &LogTail::Appended, &log,
                     [&, seen = QSet<QString>()](const QString& line) mutable {
                         const QString record = line.mid(kTimeStampLength);
                         if (!seen.contains(record)) {
                             seen.insert(record);
                             ShowLogLine(screen, line);
                         }
                     });
}

void ShowPages(const Terminal& terminal, Screen& screen)
{
    QObject::connect(&terminal, &Terminal::PageShown, &terminal, [&](const QVariantMap& page) {
        screen.Line(screen.Styled(Style::Dim, QStringLiteral("  > shown  ")) +
                    page.value(QStringLiteral("title")).toString() + QStringLiteral("  ") +
                    screen.Styled(Style::Dim, page.value(QStringLiteral("url")).toString()));
    });
    QObject::connect(&terminal, &Terminal::PageFailed, &terminal, [&] {
        screen.Line(screen.Styled(Style::Bad, QStringLiteral("  > a page could not be shown")));
    });
    QObject::connect(&terminal, &Terminal::BrowserEnded, &terminal, [&] {
        screen.Line(screen.Styled(Style::Bad, QStringLiteral("  > the screen has ended")));
    });
}

// A first page that cannot be shown, through a mistake of an application say, is no reason to give up; one
// that comes later is reported as it comes.
bool Boot(Terminal& terminal, Screen& screen)
{
    if (!WaitFor([&] { return terminal.HasCore() && terminal.HasBrowser(); })) {
        screen.Line(screen.Styled(Style::Bad, QStringLiteral("  The terminal does not come up.")));
        return false;
    }
    const auto showsPage = [&] {
        return !terminal.CurrentPage().value(QStringLiteral("url")).toString().isEmpty();
    };
    WaitFor([&] { return showsPage() || terminal.FailedCount() > 0; }, kFirstPageMs);
    return true;
}

int Operate(Terminal& terminal, Screen& screen, const LogTail& log)
{
    if (!Boot(terminal, screen)) {
        return EXIT_FAILURE;
    }
    screen.Heading(QStringLiteral("Applications"));
    ShowApplications(screen, terminal.Enumerate());
    screen.Heading(QStringLiteral("Processes"));
    ShowProcesses(screen, ListProcesses());
    screen.Heading(QStringLiteral("Screen"));
    ShowPage(screen, terminal.CurrentPage());
    screen.Line();
    if (isatty(STDIN_FILENO) == 0) {
        screen.Line(QStringLiteral("The terminal runs until Ctrl-C."));
        return QCoreApplication::exec();
    }
    screen.Line(QStringLiteral("Type help for the commands."));
    const Prompt prompt(terminal, screen, log);
    QObject::connect(&prompt, &Prompt::Quit, &QCoreApplication::quit);
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    Screen screen;
    const LogTail log;
    QCommandLineParser parser;
    const QCommandLineOption onceOption(QStringLiteral("once"));
    const QCommandLineOption picturesOption(QStringLiteral("screenshot"), QString(),
                                            QStringLiteral("directory"));
    const QCommandLineOption appOption(QStringLiteral("app"), QString(), QStringLiteral("directory"));
    parser.addOptions({onceOption, picturesOption, appOption});
    parser.process(application);
    const bool once = parser.isSet(onceOption);
    (once ? ShowNewRecords : ShowRecords)(log, screen);
    if (!once) {
        screen.Heading(QStringLiteral("Boot"));
    }
    Terminal terminal;
    ShowPages(terminal, screen);
    if (once) {
        return Checks(terminal, screen, log, parser.value(picturesOption)).Run() ? EXIT_SUCCESS
                                                                                 : EXIT_FAILURE;
    }
    const AppWatch watch(parser.value(appOption), terminal, screen);
    return Operate(terminal, screen, log);
}
