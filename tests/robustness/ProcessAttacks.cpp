// Attacks by the programs that the daemon starts.
#include "Attack.h"
#include "NormalCaller.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <array>
#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

using kxtest::WaitFor;

namespace torture {
namespace {

constexpr auto kStarted = R"({ "errorCode": <0> })";
const QString kTally = QStringLiteral("/tmp/pay/tally");
const QString kReady = QStringLiteral("/tmp/pay/ready");

Message TerminateCall()
{
    return MethodCall("/Applications", "com.veltrasys.kx.core.Applications", "Terminate");
}

/// Starts programs until the deadline and counts those that were started.
void StartUntil(const QDeadlineTimer& deadline, std::atomic<int>& started, std::atomic<int>& refused)
{
    BusClient client;
    while (!deadline.hasExpired()) {
        const bool well = Describe(client.Call(StartProgram("pay", "tally"))) == kStarted;
        ++(well ? started : refused);
    }
}

struct Behaviour {
    const char* name;
    int processes; ///< that leave a mark when they misbehave
};

void ExpectStart(BusClient& client, const char* application, const char* parameters, Findings& findings)
{
    const std::string answer = Describe(client.Call(StartProgram(application, parameters)));
    findings.Expect(answer == kStarted,
                    QStringLiteral("%1: start answered %2").arg(parameters, QString::fromStdString(answer)));
}

/// What some unruly programs are started for, and how they ended.
struct Ending {
    int programs = 0;
    int processes = 0;
    int left = 0;
    qint64 milliseconds = 0;
};

/// Starts programs of one behaviour, waits until each misbehaves and has the daemon end them all.
Ending EndPrograms(BusClient& client, const Behaviour& behaviour, int count, Findings& findings)
{
    QFile::remove(kReady);
    Ending ending;
    for (; ending.programs < count; ++ending.programs) {
        ExpectStart(client, "pay", behaviour.name, findings);
    }
    const auto areReady = [&] { return QFileInfo(kReady).size() == count * behaviour.processes; };
    findings.Expect(WaitFor(areReady), QStringLiteral("%1: not ready").arg(behaviour.name));
    ending.processes = ApplicationProcesses().size();
    QElapsedTimer timer;
    timer.start();
    findings.Expect(!IsUnanswered(client.Call(TerminateCall())), "Terminate was not answered");
    ending.milliseconds = timer.elapsed();
    // Those that are killed take a moment to go.
    WaitFor([] { return ApplicationProcesses().isEmpty(); }, 1000);
    ending.left = ApplicationProcesses().size();
    return ending;
}

/// A program that answers its termination by forking is always one process ahead of the list that the daemon
/// works through. It is not the daemon's to catch; what remains is killed here.
int EndHeirs(BusClient& client, Findings& findings)
{
    const Ending ending = EndPrograms(client, {"bequeath", 1}, 1, findings);
    for (const pid_t heir : ApplicationProcesses()) {
        kill(heir, SIGKILL);
    }
    return ending.left;
}

/// A program that runs in a group that is no application's is not signalled: the daemon waits for it, and
/// every caller with it, as long as the program lives.
/// \return how long that was, in milliseconds
qint64 OutliveForeignGroup(BusClient& client, Findings& findings)
{
    constexpr qint64 kLife = 1000;
    ExpectStart(client, "app5", "group 1", findings);
    QElapsedTimer timer;
    timer.start();
    findings.Expect(!IsUnanswered(client.Call(TerminateCall())), "Terminate was not answered");
    findings.Expect(timer.elapsed() < 3 * kLife,
                    "Terminate did not return when the program of another group ended");
    return timer.elapsed();
}

} // namespace

void StartShortPrograms(Arena& arena, Findings& findings)
{
    constexpr int kCallers = 4;
    QFile::remove(kTally);
    std::atomic<int> started{0};
    std::atomic<int> refused{0};
    NormalCaller normal;
    std::vector<std::thread> callers;
    for (int caller = 0; caller < kCallers; ++caller) {
        callers.emplace_back([&] { StartUntil(arena.deadline, started, refused); });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    normal.Stop();
    WaitFor([&] { return QFileInfo(kTally).size() == started; });
    findings.Count(started, "starts from 4 callers");
    findings.Count(QFileInfo(kTally).size(), "programs ran");
    findings.Count(normal.Calls(), "normal calls meanwhile");
    findings.Count(normal.Worst().count(), "ms the longest");
    findings.Expect(QFileInfo(kTally).size() == started, "not every program ran once");
    findings.Expect(refused == 0, QStringLiteral("%1 starts failed").arg(refused));
    findings.lost += normal.Complaints();
}

void StartUnrulyPrograms(Arena& arena, Findings& findings)
{
    constexpr int kForked = 51;
    static constexpr std::array<Behaviour, 8> kBehaviours{{{"fork", kForked},
                                                           {"stubborn", kForked},
                                                           {"orphans", kForked},
                                                           {"ignore", 1},
                                                           {"close", 1},
                                                           {"keep", 1},
                                                           {"hide", 1},
                                                           {"stop", 1}}};
    BusClient client;
    Ending all;
    do {
        const Behaviour& behaviour = arena.chance.OneOf(kBehaviours);
        const Ending ending =
            EndPrograms(client, behaviour, static_cast<int>(1 + arena.chance.Below(3)), findings);
        findings.Expect(ending.left == 0,
                        QStringLiteral("%1: %2 processes left").arg(behaviour.name).arg(ending.left));
        all.programs += ending.programs;
        all.processes += ending.processes;
        all.milliseconds = std::max(all.milliseconds, ending.milliseconds);
    } while (!arena.deadline.hasExpired() && findings.lost.isEmpty());
    findings.Count(all.programs, "programs");
    findings.Count(all.processes, "processes ended");
    findings.Count(all.milliseconds, "ms the longest Terminate");
    findings.Count(OutliveForeignGroup(client, findings),
                   "ms Terminate for a program of another group that lives 1 s");
    findings.Count(EndHeirs(client, findings),
                   "process left of a program that forks when it is terminated, by design");
}

} // namespace torture
