#include "Checks.h"

#include "Files.h"
#include "Views.h"

#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <functional>

namespace {

constexpr int kDetailLength = 160;

struct ExpectedApplication {
    const char* name;
    unsigned uid;
    bool fastCgi;
    const char* runOnBoot;
};

constexpr std::array<ExpectedApplication, 5> kExpected = {{{"broken", 4004, true, "/home/broken/bin/missing"},
                                                           {"desktop", 4001, false, ""},
                                                           {"pay", 4002, false, "/home/pay/bin/payd"},
                                                           {"platform", 0, true, ""},
                                                           {"shop", 4003, true, "/home/shop/bin/shopd"}}};

bool Matches(const ExpectedApplication& expected, const QVariantMap& application)
{
    return application.value(QStringLiteral("name")).toString() == QLatin1String(expected.name) &&
           application.value(QStringLiteral("uid")).toUInt() == expected.uid &&
           application.value(QStringLiteral("gid")).toUInt() == expected.uid &&
           application.value(QStringLiteral("fastCgi")).toBool() == expected.fastCgi &&
           application.value(QStringLiteral("runOnBoot")).toString() == QLatin1String(expected.runOnBoot);
}

QVariantMap Request(const char* application, const char* binary, const char* params = "")
{
    return {{QStringLiteral("application"), QString::fromLatin1(application)},
            {QStringLiteral("binary"), QString::fromLatin1(binary)},
            {QStringLiteral("params"), QString::fromLatin1(params)}};
}

int ErrorCode(const QVariantMap& result)
{
    return result.value(QStringLiteral("errorCode"), -2).toInt();
}

QString ErrorText(const QVariantMap& result)
{
    return result.value(QStringLiteral("errorText")).toString();
}

bool IsRunning(const QString& user, const QString& command)
{
    const auto processes = ListProcesses();
    return std::any_of(processes.begin(), processes.end(), [&](const Process& process) {
        return process.user == user && process.IsApplication() && process.command.contains(command);
    });
}

bool HasApplicationProcess()
{
    const auto processes = ListProcesses();
    return std::any_of(processes.begin(), processes.end(), std::mem_fn(&Process::IsApplication));
}

} // namespace

Checks::Checks(Terminal& terminal, Screen& screen, const LogTail& log, QString pictures)
    : m_terminal(terminal), m_screen(screen), m_log(log), m_pictures(std::move(pictures))
{}

bool Checks::Run()
{
    struct Step {
        const char* title;
        void (Checks::*run)();
    };
    static constexpr std::array<Step, 18> steps = {
        {{"The terminal boots", &Checks::Boots},
         {"The installed applications are found", &Checks::FindsApplications},
         {"Programs are run on boot, each under its application's account", &Checks::RunsBootPrograms},
         {"The desktop is shown", &Checks::ShowsFirstPage},
         {"Mistakes in an application's description are reported", &Checks::ReportsMistakes},
         {"Applications answer through the web server", &Checks::ServesPrograms},
         {"A payment is made on the screen", &Checks::PaysOnScreen},
         {"The shop's page follows the basket", &Checks::ShopsOnScreen},
         {"Every other page is shown", &Checks::ShowsOtherPages},
         {"A program is started on request", &Checks::StartsProgram},
         {"A program outside of its application is not started", &Checks::RefusesProgram},
         {"A time zone is set", &Checks::SetsTimeZone},
         {"A variable is saved", &Checks::SavesVariable},
         {"The USB port becomes a serial port", &Checks::SwitchesUsbMode},
         {"A registry key is changed", &Checks::ChangesRegistry},
         {"All applications are terminated, a stubborn one too", &Checks::TerminatesApplications},
         {"The applications are started over", &Checks::StartsOver},
         {"The terminal is restarted", &Checks::Restarts}}};
    for (const Step& step : steps) {
        m_screen.Heading(QString::fromLatin1(step.title));
        (this->*step.run)();
        Photograph(QString::fromLatin1(step.title));
        // What follows builds on it.
        if (m_failures > 0) {
            break;
        }
    }
    Conclude();
    return m_failures == 0;
}

void Checks::Conclude()
{
    m_screen.Line();
    if (m_failures == 0) {
        m_screen.Line(m_screen.Styled(Style::Good, QStringLiteral("All %1 checks hold.").arg(m_checks)));
    } else {
        const QString text = QStringLiteral("%1 of %2 checks failed; the steps after them were not tried.");
        m_screen.Line(m_screen.Styled(Style::Bad, text.arg(m_failures).arg(m_checks)));
    }
}

void Checks::Expect(bool holds, const QString& what, const QString& detail)
{
    ++m_checks;
    if (holds) {
        m_screen.Line(m_screen.Styled(Style::Good, QStringLiteral("  ok    ")) + what);
        return;
    }
    ++m_failures;
    m_screen.Line(
        m_screen.Styled(Style::Bad, QStringLiteral("  FAIL  ")) + what +
        (detail.isEmpty() ? QString() : QStringLiteral(": ") + detail.simplified().left(kDetailLength)));
}

void Checks::Show(const QString& name, const QString& value)
{
    m_screen.Line(QStringLiteral("  ") + m_screen.Styled(Style::Name, name) + QStringLiteral("  ") + value);
}

void Checks::ExpectRunning(const QString& user, const QString& command)
{
    Expect(WaitFor([&] { return IsRunning(user, command); }),
           QStringLiteral("%1 runs under the account %2").arg(command, user));
}

void Checks::ExpectLogged(const QString& what, const QString& text)
{
    Expect(WaitFor([&] { return !m_log.Lines().filter(text).isEmpty(); }), what,
           QStringLiteral("no record with: ") + text);
}

void Checks::ExpectNoApplicationProcess()
{
    Expect(WaitFor([] { return !HasApplicationProcess(); }),
           QStringLiteral("no process of an application is left"));
    if (HasApplicationProcess()) {
        ShowProcesses(m_screen, ListProcesses());
    }
}

void Checks::Boots()
{
    Expect(WaitFor([&] { return m_terminal.HasBrowser(); }), QStringLiteral("the browser is on the bus"));
    Expect(WaitFor([&] { return m_terminal.HasCore(); }), QStringLiteral("the core daemon is on the bus"));
    Expect(WaitFor([&] {
               return m_terminal.Fetch(QStringLiteral("/html/platform/misc/noapps.html")).status == 200;
           }),
           QStringLiteral("the web server serves the published tree"));
}

void Checks::FindsApplications()
{
    const auto applications = m_terminal.Enumerate();
    ShowApplications(m_screen, applications);
    Expect(applications.size() == static_cast<int>(kExpected.size()),
           QStringLiteral("%1 homes are listed").arg(kExpected.size()), m_terminal.LastError());
    for (const ExpectedApplication& expected : kExpected) {
        const bool found =
            std::any_of(applications.begin(), applications.end(),
                        [&](const auto& application) { return Matches(expected, application); });
        Expect(found, QStringLiteral("%1 is described as installed").arg(QLatin1String(expected.name)));
    }
}

void Checks::RunsBootPrograms()
{
    ExpectRunning(QStringLiteral("pay"), QStringLiteral("/home/pay/bin/payd"));
    ExpectRunning(QStringLiteral("shop"), QStringLiteral("/home/shop/bin/shopd"));
    ShowProcesses(m_screen, ListProcesses());
}

void Checks::ShowsFirstPage()
{
    const auto url = [&] { return m_terminal.CurrentPage().value(QStringLiteral("url")).toString(); };
    const QString desktop = QStringLiteral("http://localhost/cgi-bin/page/show?path=desktop/index.html");
    WaitFor([&] { return url() == desktop; });
    const QVariantMap page = m_terminal.CurrentPage();
    ShowPage(m_screen, page);
    Expect(url() == desktop, QStringLiteral("the desktop's index form is on the screen"), url());
    Expect(page.value(QStringLiteral("title")).toString() == QLatin1String("Desktop"),
           QStringLiteral("its title is Desktop"), page.value(QStringLiteral("title")).toString());
}

void Checks::ReportsMistakes()
{
    ExpectLogged(QStringLiteral("an absolute path outside the home"),
                 QStringLiteral("File '/etc/passwd' isn't located in '/home/broken' directory. Ignored."));
    ExpectLogged(QStringLiteral("a path that climbs out of the home"),
                 QStringLiteral("File '/home/pay/card_ranges.xml' is not in '/home/broken/' directory"));
    ExpectLogged(QStringLiteral("a form that is no page"),
                 QStringLiteral("File '/home/broken/bin/stubborn' is not in '/home/broken/html/' directory"));
    ExpectLogged(QStringLiteral("a form of blanks"),
                 QStringLiteral("No form defined for <desktop_item/> (broken)"));
    ExpectLogged(QStringLiteral("a position that is no number"),
                 QStringLiteral("'icon_position' should be an integer (actual value: 'top left')"));
    ExpectLogged(QStringLiteral("a boot program that does not exist"),
                 QStringLiteral("Failed to start application"));
}

void Checks::ServesPrograms()
{
    const QByteArray receipt =
        m_terminal.Fetch(QStringLiteral("/cgi-bin/pay/pay"), QByteArrayLiteral("amount=12.50")).body;
    Expect(receipt.contains("Approved") && receipt.contains("12.50"),
           QStringLiteral("plain CGI: 12.50 is paid"), QString::fromUtf8(receipt));
    const QByteArray refusal = m_terminal.Fetch(QStringLiteral("/cgi-bin/pay/pay?amount=a+lot")).body;
    Expect(refusal.contains("not an amount"), QStringLiteral("plain CGI: \"a lot\" is not paid"),
           QString::fromUtf8(refusal));
    WaitFor([&] { return QFile::exists(QStringLiteral("/var/run/sockets/shop/fcgi")); });
    const QByteArray basket = m_terminal.Fetch(QStringLiteral("/cgi-bin/shop/add?item=coffee")).body;
    Expect(basket.contains("Coffee") && basket.contains("2.60"),
           QStringLiteral("FastCGI: a coffee is in the basket"), QString::fromUtf8(basket));
    const auto page = [&](const char* path) {
        return m_terminal.Fetch(QStringLiteral("/cgi-bin/page/show?path=") + QLatin1String(path)).status;
    };
    Expect(page("pay/index.html") == 200 && page("pay/missing.html") == 404,
           QStringLiteral("the page server knows which pages there are"));
    Expect(page("pay/../app.conf") == 400 && page("pay/%2e%2e/app.conf") == 400,
           QStringLiteral("the page server stays below html"));
}

void Checks::StartsProgram()
{
    const QVariantMap result = m_terminal.Start(Request("pay", "printer", "Totals"));
    Expect(ErrorCode(result) == 0, QStringLiteral("Start of pay's printer returns 0"),
           ErrorText(result) + m_terminal.LastError());
    ExpectRunning(QStringLiteral("pay"), QStringLiteral("/home/pay/bin/printer Totals"));
    const auto printout = [] { return Contents("/tmp/pay/printout.txt"); };
    WaitFor([&] { return !printout().isEmpty(); });
    Expect(
        printout().startsWith(QLatin1String("Totals\nprinted by pay (4002:4002) for pay in /home/pay\n")) &&
            printout().contains(QLatin1String("12.50")),
        QStringLiteral("the printout names account and directory and lists the payment"), printout());
}

void Checks::RefusesProgram()
{
    const QVariantMap outside = m_terminal.Start(Request("pay", "../../../usr/bin/id"));
    Expect(ErrorCode(outside) == -1 && ErrorText(outside).endsWith(QLatin1String("isn't located in bin dir")),
           QStringLiteral("a program outside of bin is refused"),
           ErrorText(outside) + m_terminal.LastError());
    const QVariantMap unknown = m_terminal.Start(Request("nobody", "printer"));
    Expect(ErrorCode(unknown) == -1 &&
               ErrorText(unknown) == QLatin1String("Application nobody doesn't exist"),
           QStringLiteral("a program of an unknown application is refused"),
           ErrorText(unknown) + m_terminal.LastError());
}

void Checks::TerminatesApplications()
{
    const QVariantMap result = m_terminal.Start(Request("broken", "stubborn"));
    Expect(ErrorCode(result) == 0, QStringLiteral("Start of a program that ignores SIGTERM returns 0"),
           ErrorText(result) + m_terminal.LastError());
    ExpectRunning(QStringLiteral("broken"), QStringLiteral("sleep infinity"));
    const int before = m_terminal.TerminatedCount();
    Expect(m_terminal.Terminate(), QStringLiteral("Terminate is answered"), m_terminal.LastError());
    Expect(WaitFor([&] { return m_terminal.TerminatedCount() > before; }),
           QStringLiteral("OnTerminate is signalled"));
    ExpectNoApplicationProcess();
}

void Checks::StartsOver()
{
    const int started = m_terminal.StartedCount();
    const int loaded = m_terminal.LoadedCount();
    const QVariantMap result = m_terminal.Start({});
    Expect(result.value(QStringLiteral("return")).toBool(), QStringLiteral("Start of everything is answered"),
           m_terminal.LastError());
    Expect(WaitFor([&] { return m_terminal.StartedCount() > started; }),
           QStringLiteral("OnStarted is signalled"));
    ExpectRunning(QStringLiteral("pay"), QStringLiteral("/home/pay/bin/payd"));
    ExpectRunning(QStringLiteral("shop"), QStringLiteral("/home/shop/bin/shopd"));
    Expect(WaitFor([&] { return m_terminal.LoadedCount() > loaded; }),
           QStringLiteral("the desktop is shown again"));
    WaitFor([&] { return QFile::exists(QStringLiteral("/var/run/sockets/shop/fcgi")); });
}

void Checks::Restarts()
{
    const auto reboots = [] {
        return Contents("/run/standins/calls").split(QLatin1Char('\n')).count(QStringLiteral("reboot"));
    };
    const int before = reboots();
    const int terminated = m_terminal.TerminatedCount();
    Expect(m_terminal.Restart(), QStringLiteral("Restart is answered"), m_terminal.LastError());
    QElapsedTimer elapsed;
    elapsed.start();
    Expect(WaitFor([&] { return reboots() > before; }, 60000), QStringLiteral("reboot is called"));
    // The pause is two seconds; the margin is for the answer that came after the restart had begun.
    Expect(elapsed.elapsed() >= 1900, QStringLiteral("the applications had two seconds to finish"),
           QStringLiteral("%1 ms").arg(elapsed.elapsed()));
    Expect(Contents("/tmp/pay/stopped").contains(QLatin1String("asked to stop")),
           QStringLiteral("pay was asked to stop, through CGI"));
    Expect(Contents("/tmp/shop/stopped").contains(QLatin1String("asked to stop")),
           QStringLiteral("shop was asked to stop, through FastCGI"));
    Expect(WaitFor([&] { return m_terminal.TerminatedCount() > terminated; }),
           QStringLiteral("OnTerminate is signalled"));
    ExpectNoApplicationProcess();
}
