// Attacks the daemon for as long as it is told, in the private root: see scripts/torture.
#include "Attack.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QLocale>

#include <cstdio>
#include <random>

namespace torture {
namespace {

// The bus comes last: what else holds a connection to it loses that.
constexpr std::array<Attack, 8> kAttacks{{
    {"messages", "random and hostile messages from many callers at once", 20, SendHostileMessages},
    {"vanish", "callers that are gone before the reply", 6, VanishBeforeTheReply},
    {"browser", "a browser that comes and goes", 6, FlapTheBrowser},
    {"starts", "programs that end at once", 14, StartShortPrograms},
    {"unruly", "programs that fork, ignore signals, change group, keep or close descriptors", 8,
     StartUnrulyPrograms},
    {"killed", "SIGKILL at random moments while files are written", 8, KillWhileWriting},
    {"clock", "a clock that jumps by years", 4, JumpTheClock},
    {"bus", "the bus killed under load and started again", 8, RestartTheBus},
}};

struct Options {
    int seconds = 60;
    std::uint64_t seed = 0;
    QVector<Attack> attacks;
};

int ListAttacks()
{
    for (const Attack& attack : kAttacks) {
        std::printf("%-10s %s\n", attack.name, attack.purpose);
    }
    return 0;
}

QVector<Attack> Chosen(const QStringList& names)
{
    QVector<Attack> chosen;
    for (const Attack& attack : kAttacks) {
        if (names.isEmpty() || names.contains(QLatin1String(attack.name))) {
            chosen += attack;
        }
    }
    return chosen;
}

/// Reports an attack as a row of a table, which reads well enough as it is.
void Print(const Attack& attack, const Findings& findings)
{
    const QString lost = findings.lost.isEmpty() ? QStringLiteral("nothing") : findings.lost.join("; ");
    std::printf("| %s: %s | %s | %s |\n", attack.name, attack.purpose, qPrintable(findings.tried.join("; ")),
                qPrintable(lost));
    std::fflush(stdout);
}

/// Every attack has random numbers of its own, so that it does the same alone as among the others.
std::uint64_t SeedOf(const Attack& attack, std::uint64_t seed)
{
    return seed ^ qHash(QByteArray(attack.name));
}

Findings Run(const Attack& attack, Patient& patient, const Options& options, int shares)
{
    const qint64 milliseconds = 1000LL * options.seconds * attack.share / shares;
    Arena arena{patient, Chance(SeedOf(attack, options.seed)), QDeadlineTimer(milliseconds)};
    Findings findings;
    attack.run(arena, findings);
    findings.lost += patient.Complaints();
    findings.Count(patient.Measure().residentKilobytes, "kB resident afterwards");
    return findings;
}

int RunAll(const Options& options)
{
    Patient patient;
    const QStringList before =
        patient.Start() ? patient.Complaints() : QStringList("the daemon does not start");
    if (!before.isEmpty()) {
        std::puts(qPrintable(before.join("; ")));
        return 1;
    }
    int shares = 0;
    for (const Attack& attack : options.attacks) {
        shares += attack.share;
    }
    std::printf("| attack | tried | lost |\n|---|---|---|\n");
    bool lost = false;
    for (const Attack& attack : options.attacks) {
        const Findings findings = Run(attack, patient, options, shares);
        Print(attack, findings);
        lost = lost || !findings.lost.isEmpty();
        if (!patient.Daemon().IsRunning() && !patient.Start()) {
            std::puts("the daemon does not start again");
            return 1;
        }
    }
    return lost || patient.Stop() != 0 ? 1 : 0;
}

int Main(const QCoreApplication& application)
{
    QCommandLineParser parser;
    const QCommandLineOption seconds("seconds", "How long all attacks take together.", "N", "60");
    const QCommandLineOption seed("seed", "Repeats the random numbers of another run.", "S");
    const QCommandLineOption list("list", "Lists the attacks.");
    parser.addOptions({seconds, seed, list});
    parser.addPositionalArgument("NAME", "Attacks to run; all if none is given.", "[NAME...]");
    parser.process(application);
    if (parser.isSet(list)) {
        return ListAttacks();
    }
    Options options;
    options.seconds = parser.value(seconds).toInt();
    options.seed = parser.isSet(seed) ? parser.value(seed).toULongLong() : std::random_device()();
    options.attacks = Chosen(parser.positionalArguments());
    if (options.seconds <= 0 || options.attacks.isEmpty()) {
        std::fputs("torture: no such attack, or no time for it\n", stderr);
        return 2;
    }
    std::printf("seed %llu, %d seconds\n\n", static_cast<unsigned long long>(options.seed), options.seconds);
    return RunAll(options);
}

} // namespace

void Findings::Count(qint64 number, const char* what)
{
    static const QLocale english(QLocale::English);
    tried += english.toString(number) + QLatin1Char(' ') + QLatin1String(what);
}

void Findings::Expect(bool well, const QString& loss)
{
    if (!well) {
        lost += loss;
    }
}

} // namespace torture

int main(int argc, char** argv)
{
    dbus_threads_init_default();
    const QCoreApplication application(argc, argv);
    return torture::Main(application);
}
