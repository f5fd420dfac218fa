// Attacks over the bus.
#include "Attack.h"
#include "FakeBrowser.h"
#include "Files.h"
#include "Hostility.h"
#include "NormalCaller.h"

#include <QProcess>

#include <csignal>
#include <memory>

using kxtest::PlatformCalls;
using kxtest::WaitFor;

namespace torture {
namespace {

constexpr int kBrowserMoves = 20;
constexpr auto kDefaultPage = "http://localhost/cgi-bin/page/show?path=desktop/index.html";

Message EnumerateCall()
{
    return MethodCall("/Applications", "com.veltrasys.kx.core.Applications", "Enumerate");
}

/// Makes one of the calls that take the daemon longest, none of which a program outlives.
Message LongCall(Chance& chance)
{
    static constexpr std::array<Message (*)(), 4> kLongCalls{
        [] { return EnumerateCall(); },
        [] { return StartProgram("pay", "tally"); },
        [] { return StartCall({}); },
        [] {
            return SystemCall(102, {{"number", "2"}});
        },
    };
    return chance.OneOf(kLongCalls)();
}

void NoteNormalCaller(NormalCaller& caller, Findings& findings)
{
    caller.Stop();
    findings.Count(caller.Calls(), "normal calls meanwhile");
    findings.Count(caller.Worst().count(), "ms the longest");
    findings.lost += caller.Complaints();
}

/// Makes one random move of the browser or of a caller that wants a page.
void MoveBrowser(Arena& arena, std::unique_ptr<kxtest::FakeBrowser>& browser, BusClient& caller)
{
    switch (arena.chance.Below(4)) {
    case 0:
        browser->Come();
        break;
    case 1:
        browser->Go();
        break;
    case 2:
        browser.reset(); // with its connection
        browser = std::make_unique<kxtest::FakeBrowser>();
        break;
    default:
        caller.Send(StartCall({{"default", "true"}}));
    }
}

bool StartBus()
{
    QFile::remove(QStringLiteral("/run/dbus/pid"));
    QFile::remove(QStringLiteral("/run/dbus/system_bus_socket"));
    QProcess bus;
    bus.setStandardErrorFile(QStringLiteral("/var/log/dbus.log"));
    bus.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--config-file=/etc/dbus-1/system.conf")});
    return bus.waitForFinished() && bus.exitCode() == 0;
}

/// Kills the bus under the daemon's load, and the daemon as a reboot would once it has asked for one.
void LoseTheBus(Arena& arena, Findings& findings)
{
    const int reboots = PlatformCalls().count("reboot");
    const pid_t bus = ReadFile("/run/dbus/pid").trimmed().toInt();
    constexpr int kLoad = 200;
    Hostility hostility(arena.chance, QDeadlineTimer(QDeadlineTimer::Forever));
    findings.Expect(WaitFor([&] { return hostility.Sent() >= kLoad; }), "the bus carries no load");
    kill(bus, SIGKILL);
    hostility.Stop();
    const auto rebooted = [&] { return PlatformCalls().count("reboot") > reboots; };
    findings.Expect(WaitFor(rebooted), "no reboot followed the loss of the bus");
    findings.Expect(PlatformCalls().count("reboot") == reboots + 1, "more than one reboot followed");
    findings.Expect(arena.patient.Daemon().IsRunning(), "the daemon did not live to see the reboot");
    findings.Expect(arena.patient.Stop() == 0, "the daemon did not end as asked to");
}

} // namespace

void SendHostileMessages(Arena& arena, Findings& findings)
{
    NormalCaller normal;
    Hostility hostility(arena.chance, arena.deadline);
    hostility.Finish();
    NoteNormalCaller(normal, findings);
    hostility.Note(findings);
}

void VanishBeforeTheReply(Arena& arena, Findings& findings)
{
    constexpr qint64 kAtOnce = 20;
    NormalCaller normal;
    qint64 callers = 0;
    qint64 calls = 0;
    BusClient witness;
    for (; !arena.deadline.hasExpired(); ++callers) {
        if (callers % kAtOnce == 0) {
            witness.Call(EnumerateCall()); // the daemon has seen to all who are gone
        }
        BusClient client;
        for (size_t left = 1 + arena.chance.Below(5); left > 0; --left, ++calls) {
            client.Send(LongCall(arena.chance));
        }
    }
    findings.Count(callers, "callers");
    findings.Count(calls, "calls nobody waited for");
    NoteNormalCaller(normal, findings);
}

void FlapTheBrowser(Arena& arena, Findings& findings)
{
    auto browser = std::make_unique<kxtest::FakeBrowser>();
    BusClient caller;
    qint64 rounds = 0;
    qint64 missed = 0;
    for (; !arena.deadline.hasExpired(); ++rounds) {
        for (int move = 0; move < kBrowserMoves; ++move) {
            MoveBrowser(arena, browser, caller);
        }
        // After all that, a page that is asked for while the browser is away is shown when it comes.
        browser.reset();
        browser = std::make_unique<kxtest::FakeBrowser>();
        caller.Call(StartCall({{"default", "true"}}));
        browser->Come();
        missed += WaitFor([&] { return browser->Pages() == QStringList(kDefaultPage); }) ? 0 : 1;
    }
    findings.Count(rounds * kBrowserMoves, "comings, goings and page requests");
    findings.Count(rounds, "pages shown on return");
    findings.Expect(missed == 0, QStringLiteral("%1 pages not shown once on return").arg(missed));
}

void RestartTheBus(Arena& arena, Findings& findings)
{
    qint64 times = 0;
    do {
        LoseTheBus(arena, findings);
        findings.Expect(StartBus(), "the bus does not start again");
        findings.Expect(arena.patient.Start(), "the daemon does not start on the new bus");
        ++times;
    } while (!arena.deadline.hasExpired() && findings.lost.isEmpty());
    findings.Count(times, "times; each time a reboot was asked for once, and the next daemon served");
}

} // namespace torture
