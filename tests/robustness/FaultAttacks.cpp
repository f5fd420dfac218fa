// Attacks on the daemon's surroundings.
#include "Attack.h"
#include "Files.h"
#include "NormalCaller.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <array>
#include <atomic>
#include <thread>

using kxtest::PlatformCalls;
using kxtest::WaitFor;

namespace torture {
namespace {

/// Something that the daemon writes, and two calls that write different things there.
struct Written {
    const char* path;
    bool atomic; ///< whoever looks finds the old or the new, whenever the daemon is killed
    Message (*call)(bool second);
};

Message UsbCall(const char* hubId)
{
    return SystemCall(96, {{"mode", "serial"},
                           {"usbForceFullspeed", "0"},
                           {"dflt", "0"},
                           {"usbuid", "0"},
                           {"hubid", std::string(1000, *hubId)}});
}

constexpr std::array<Written, 7> kWritten{{
    {"/var/lib/kxregistry/registry.ini", true,
     [](bool second) {
         return second ? ToolsCall("ResetTimeInfoSource", {})
                       : ToolsCall("SetTimeInfo", {"", "Europe/Berlin", "HOST"});
     }},
    {"/etc/rc.d/rc.platform.conf", false,
     [](bool second) {
         return ToolsCall("SaveVariableValue", {"MSG", std::string(200, second ? 'b' : 'a')});
     }},
    {"/etc/localtime", false,
     [](bool second) { return ToolsCall("SetTimeZone", {second ? "Asia/Tokyo" : "Europe/Berlin"}); }},
    {"/etc/time_offset", false,
     [](bool second) {
         return ToolsCall("SetTimeInfo",
                          {second ? "2030-01-01 00:00:00" : "2031-01-01 00:00:00", "", "HOST"});
     }},
    {"/etc/lighttpd/lighttpd.conf", false,
     [](bool second) {
         return SystemCall(97, {{"newconf", second ? "HTTPS" : "HTTP"}});
     }},
    {"/etc/platform/settings/L2KernelsVersion", false,
     [](bool second) {
         return SystemCall(102, {{"number", second ? "2" : "1"}});
     }},
    {"/etc/platform/sys/hubID", false, [](bool second) { return UsbCall(second ? "b" : "a"); }},
}};

/// \return what a link points to, or else what a file holds; a null text when there is neither
QByteArray StateOf(const char* path)
{
    const QString target = QFileInfo(QString::fromLatin1(path)).symLinkTarget();
    return !target.isEmpty() ? target.toLocal8Bit() : ReadFile(QString::fromLatin1(path));
}

/// What may be found after a kill.
class Expectation {
public:
    explicit Expectation(const Written& written) : m_written(&written)
    {
        BusClient client;
        for (const bool second : {false, true}) {
            client.Call(written.call(second));
            m_states[second ? 1 : 0] = StateOf(written.path);
        }
    }

    bool IsMet() const
    {
        const QByteArray state = StateOf(m_written->path);
        return state == m_states[0] || state == m_states[1];
    }
    bool AreDifferent() const { return m_states[0] != m_states[1] && !m_states[0].isEmpty(); }
    const Written& What() const { return *m_written; }

private:
    const Written* m_written;
    std::array<QByteArray, 2> m_states;
};

/// Has the daemon write the same thing back and forth, and kills it at some moment.
/// \return whether what is found then is the old or the new
bool KillWriter(Arena& arena, const Expectation& expectation)
{
    const Written& written = expectation.What();
    const QByteArray before = StateOf(written.path);
    constexpr size_t kLongest = 30'000;
    const std::chrono::microseconds moment(arena.chance.Below(kLongest));
    std::atomic<bool> killed{false};
    std::thread caller([&] {
        BusClient client;
        for (bool second = false; !killed; second = !second) {
            client.Call(written.call(second));
        }
    });
    std::this_thread::sleep_for(moment);
    arena.patient.Kill();
    killed = true;
    caller.join();
    return StateOf(written.path) == before || expectation.IsMet();
}

int Litter()
{
    const QDir folder(QStringLiteral("/var/lib/kxregistry"));
    return folder.entryList(QDir::Files | QDir::Hidden).size() - 1;
}

QString RandomDay(Chance& chance)
{
    static constexpr std::array<const char*, 5> kDays{"1970-01-02", "2038-01-19", "2038-01-20", "2099-12-31",
                                                      "2026-11-21"};
    return QString::fromLatin1(chance.OneOf(kDays));
}

/// Restarts the web server through the daemon's timer, with the clock being put back or forward meanwhile.
void JumpDuringTimer(Arena& arena, BusClient& client, Findings& findings)
{
    const auto restarts = [] { return PlatformCalls().count("lighthttpd restart"); };
    const int before = restarts();
    client.Call(SystemCall(97));
    const std::string day = RandomDay(arena.chance).toStdString();
    findings.Expect(Describe(client.Call(ToolsCall("SetSystemTime", {day}))) == "0",
                    "the clock was not set to " + QString::fromStdString(day));
    findings.Expect(WaitFor([&] { return restarts() == before + 1; }, 3000),
                    "the web server was not restarted in time after a jump to " +
                        QString::fromStdString(day));
}

} // namespace

void KillWhileWriting(Arena& arena, Findings& findings)
{
    arena.patient.Stop();
    arena.patient.Preload(QStringLiteral(KX_FAKECLOCK_LIBRARY)); // the clock cannot be set here
    findings.Expect(arena.patient.Start(), "the daemon does not start with another clock");
    for (const char* target : {"/etc/lighttpd/lighttpd.conf.HTTP", "/etc/lighttpd/lighttpd.conf.HTTPS"}) {
        findings.Expect(QFile(QString::fromLatin1(target)).open(QIODevice::WriteOnly), "no room for files");
    }
    std::vector<Expectation> expectations(kWritten.begin(), kWritten.end());
    for (const Expectation& expectation : expectations) {
        findings.Expect(expectation.AreDifferent(),
                        QStringLiteral("nothing was written to %1").arg(expectation.What().path));
    }
    std::vector<int> torn(expectations.size());
    qint64 kills = 0;
    for (; !arena.deadline.hasExpired() && findings.lost.isEmpty(); ++kills) {
        const size_t index = arena.chance.Below(expectations.size());
        const Expectation& expectation = expectations[index];
        torn[index] += KillWriter(arena, expectation) ? 0 : 1;
        findings.Expect(arena.patient.Start(), "the daemon does not start after a kill");
        // What is torn is whole again after the next call.
        BusClient client;
        client.Call(expectation.What().call(true));
        findings.Expect(expectation.IsMet(), QStringLiteral("%1 stayed torn").arg(expectation.What().path));
    }
    findings.Count(kills, "kills");
    for (size_t index = 0; index < torn.size(); ++index) {
        const Written& written = expectations[index].What();
        findings.Expect(!written.atomic || torn[index] == 0, QStringLiteral("%1 torn").arg(written.path));
        if (torn[index] > 0) {
            findings.Count(torn[index],
                           qPrintable(QStringLiteral("times neither old nor new: %1").arg(written.path)));
        }
    }
    findings.Count(Litter(), "temporary files left beside the registry");
    arena.patient.Stop();
    arena.patient.Preload({});
    findings.Expect(arena.patient.Start(), "the daemon does not start again");
}

void JumpTheClock(Arena& arena, Findings& findings)
{
    arena.patient.Stop();
    arena.patient.Preload(QStringLiteral(KX_FAKECLOCK_LIBRARY));
    findings.Expect(arena.patient.Start(), "the daemon does not start with another clock");
    NormalCaller normal;
    BusClient client;
    qint64 jumps = 0;
    do {
        JumpDuringTimer(arena, client, findings);
        ++jumps;
    } while (!arena.deadline.hasExpired() && findings.lost.isEmpty());
    normal.Stop();
    findings.Count(jumps, "jumps, each while a timer runs");
    findings.Count(normal.Calls(), "normal calls meanwhile");
    findings.Count(normal.Worst().count(), "ms the longest");
    findings.lost += normal.Complaints();
    arena.patient.Stop();
    arena.patient.Preload({});
    findings.Expect(arena.patient.Start(), "the daemon does not start again");
}

} // namespace torture
