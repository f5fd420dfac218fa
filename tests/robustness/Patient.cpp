#include "Patient.h"

#include "Files.h"
#include "NormalCaller.h"

#include <QDir>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

namespace torture {
namespace {

constexpr int kSettling = 5000;

/// What the allocator may keep of maps with 100,000 entries, some of which are in the queue together. A leak
/// passes it soon, as the attacks are many.
constexpr long kMemoryAllowance = 64 * 1024;

#if defined(__SANITIZE_ADDRESS__) || (defined(__has_feature) && __has_feature(address_sanitizer))
constexpr bool kHoldsFreedMemory = true; // a sanitizer keeps what was freed for a while
#else
constexpr bool kHoldsFreedMemory = false;
#endif

constexpr auto kMenu = R"(<application>
<desktop_item title="Pay" icon="html/pay.png" position="1">html/pay.html</desktop_item>
<config_page title="Totals">html/totals.html</config_page>
<home_button>html/pay.html</home_button><fast_cgi>true</fast_cgi>
</application>)";

void InstallApplications()
{
    const kxtest::HomeFile program{"bin/unruly", ReadFile(QStringLiteral(KX_UNRULY_PROGRAM)), 0755};
    const kxtest::HomeFile page{"html/index.html", "page"};
    kxtest::InstallApplication("desktop", 4001, 4001, {}, {page});
    kxtest::InstallApplication("pay", 4002, 4002, kMenu, {program, page});
    kxtest::InstallApplication("broken", 4004, 4004, "<application><desktop_item>", {page});
    // Its program changes to a group that is no application's when it is executed.
    kxtest::InstallApplication("app5", 4005, 4005, {}, {program});
    const char* const elsewhere = "/home/app5/bin/unruly";
    constexpr uid_t kGuest = 2000;
    if (chown(elsewhere, 0, kGuest) != 0 || chmod(elsewhere, 02755) != 0) {
        qFatal("cannot make a set-group-id program");
    }
}

int CountEntries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

template<typename Number>
void Compare(const char* what, Number before, Number now, QStringList& differences)
{
    if (before != now) {
        differences += QStringLiteral("%1 %2 instead of %3").arg(now).arg(QLatin1String(what)).arg(before);
    }
}

} // namespace

QVector<pid_t> ApplicationProcesses()
{
    QVector<pid_t> found;
    for (const QString& name : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        struct stat info = {};
        const QByteArray path = "/proc/" + name.toLatin1();
        if (name.toInt() > 1 && stat(path.constData(), &info) == 0 && info.st_uid >= 4000 &&
            info.st_uid < 5000 && !ReadFile(path + "/cmdline").isEmpty()) {
            found += name.toInt();
        }
    }
    return found;
}

Patient::Patient()
{
    kxtest::RemoveApplications();
    InstallApplications();
}

bool Patient::Start()
{
    m_daemon = std::make_unique<kxtest::DaemonFixture>();
    if (!m_preload.isEmpty()) {
        m_daemon->Preload(m_preload);
    }
    if (!m_daemon->Launch({QStringLiteral("--no-daemon")}) || !WaitUntilServing()) {
        return false;
    }
    ComplaintsOfNormalCalls(); // the first record of the log opens a connection to it, and the like
    m_before = Measure();
    return true;
}

bool Patient::WaitUntilServing() const
{
    BusClient client;
    const auto serves = [&] {
        const Message reply = client.Call(MethodCall("/Tools", DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
        return reply && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
    };
    return kxtest::WaitFor([&] { return !m_daemon->IsRunning() || serves(); }) && m_daemon->IsRunning();
}

void Patient::Kill()
{
    m_daemon->Signal(SIGKILL);
    m_daemon->WaitForExit();
}

Vitals Patient::Measure() const
{
    const QString process = QStringLiteral("/proc/%1/").arg(m_daemon->Pid());
    const long pages = ReadFile(process + "statm").split(' ').value(1).toLong();
    return {BusClient().DaemonConnection(), CountEntries(process + "fd"), CountEntries(process + "task"),
            pages * (sysconf(_SC_PAGESIZE) / 1024)};
}

QStringList Patient::Complaints()
{
    if (!m_daemon->IsRunning()) {
        return {QStringLiteral("the daemon ended with status %1").arg(m_daemon->WaitForExit())};
    }
    QStringList complaints = ComplaintsOfNormalCalls();
    bool settled = false;
    kxtest::WaitFor(
        [&] {
            settled = true;
            Differences(settled);
            return settled;
        },
        kSettling);
    return complaints + Differences(settled);
}

QStringList Patient::Differences(bool& settled) const
{
    QStringList differences;
    const Vitals now = Measure();
    Compare("is the connection", QString::fromStdString(m_before.connection),
            QString::fromStdString(now.connection), differences);
    Compare("descriptors", m_before.descriptors, now.descriptors, differences);
    Compare("threads", m_before.threads, now.threads, differences);
    Compare("children", 0, kxtest::ChildrenOf(m_daemon->Pid()).size(), differences);
    Compare("application processes", 0, ApplicationProcesses().size(), differences);
    if (!kHoldsFreedMemory && now.residentKilobytes > m_before.residentKilobytes + kMemoryAllowance) {
        Compare("kB resident", m_before.residentKilobytes, now.residentKilobytes, differences);
    }
    settled = differences.isEmpty();
    return differences;
}

} // namespace torture
