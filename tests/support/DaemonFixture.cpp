#include "DaemonFixture.h"

#include "Files.h"
#include "PrivateRoot.h"
#include "Processes.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingReply>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <linux/close_range.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

namespace kxtest {
namespace {

constexpr auto kProgram = "/usr/sbin/kxcore";
constexpr auto kLog = "/var/log/messages";
constexpr auto kService = "com.veltrasys.kx.core";
constexpr int kSignalled = 1000;

QString Service()
{
    return QString::fromLatin1(kService);
}

/// Appends the record in a line of the log if it is one of the daemon's.
void AppendRecord(const QString& logLine, QVector<LogRecord>& records)
{
    static const QRegularExpression form(R"(^\w{3} +\d+ [\d:]{8} \S+ \w+\.(\w+) kxcore(?:\[\d+\])?: )"
                                         R"((?:platform/kx-core(?: ([^ :]*):([^:]*):(\d+))?: *)?(.*)$)");
    const QRegularExpressionMatch match = form.match(logLine);
    if (match.hasMatch()) {
        records.append({match.captured(1), match.captured(2), match.captured(3), match.captured(4).toInt(),
                        match.captured(5)});
    }
}

} // namespace

qint64 LogMark()
{
    return QFileInfo(kLog).size();
}

QVector<LogRecord> LogSince(qint64 mark)
{
    QVector<LogRecord> records;
    QFile log(kLog);
    if (log.open(QIODevice::ReadOnly) && log.seek(mark)) {
        for (const QString& line : QString::fromLocal8Bit(log.readAll()).split('\n')) {
            AppendRecord(line, records);
        }
    }
    return records;
}

QString InstallApplication(const QString& name, unsigned uid, unsigned gid, const QByteArray& appConf,
                           const QVector<HomeFile>& files)
{
    const QString home = "/home/" + name;
    RemoveAll(home);
    MakeDirectory(home);
    if (!appConf.isEmpty()) {
        WriteFile(home + "/app.conf", appConf);
    }
    for (const HomeFile& file : files) {
        WriteFile(home + '/' + file.path, file.content, 0, 0, file.mode);
    }
    // Links themselves, not what they point to.
    const QString owner = QString("%1:%2").arg(uid).arg(gid);
    if (QProcess::execute("chown", {"-hR", owner, home}) != 0) {
        qFatal("cannot change the owner of %s", qPrintable(home));
    }
    return home;
}

void RemoveApplications()
{
    RemoveAll("/home");
    MakeDirectory("/home");
}

HomeFile IdleProgram(const QString& path)
{
    return {path, ReadFile("/usr/bin/sleep"), 0755};
}

HomeFile Script(const QString& path, const QByteArray& commands)
{
    return {path, "#!/bin/sh\n" + commands, 0755};
}

QStringList PlatformCalls()
{
    const QString calls = QString::fromLocal8Bit(ReadFile("/run/standins/calls"));
    return calls.split('\n', Qt::SkipEmptyParts);
}

QVector<pid_t> ProcessesOf(const QString& program)
{
    QVector<pid_t> found;
    for (const pid_t pid : ProcessIds()) {
        if (EntriesOf(pid, "cmdline").value(0) == program.toLocal8Bit()) {
            found.append(pid);
        }
    }
    return found;
}

QVector<QPair<pid_t, char>> ChildrenOf(pid_t parent)
{
    QVector<QPair<pid_t, char>> children;
    for (const pid_t pid : ProcessIds()) {
        const auto status = StatusOf(pid);
        if (status.value("PPid").toInt() == parent) {
            children.append({pid, status.value("State").at(0)});
        }
    }
    return children;
}

DaemonFixture::DaemonFixture()
    : m_applications(Service(), "/Applications", QDBusConnection::systemBus(), nullptr)
{
    RequirePrivateRoot();
    RegisterApplicationList();
    // What this process was started with besides the standard streams must not reach the daemon.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    m_process.setWorkingDirectory("/");
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.setStandardInputFile(QProcess::nullDevice());
    m_applications.setTimeout(Bound(kPatience));
}

DaemonFixture::~DaemonFixture()
{
    if (IsRunning()) {
        Signal(SIGKILL);
        WaitForExit();
    }
}

void DaemonFixture::Preload(const QString& library)
{
    SetEnvironment("LD_PRELOAD", library);
    // A sanitizer's runtime wants to be the first library, for the sake of functions that these leave alone.
    const QString asan = "ASAN_OPTIONS";
    SetEnvironment(asan, m_environment.value(asan) + ":verify_asan_link_order=0");
}

void DaemonFixture::InjectFault(const QString& fault)
{
    Preload(KX_FAULT_INJECTION_LIBRARY);
    SetEnvironment("KX_FAULT", fault);
}

bool DaemonFixture::Launch(const QStringList& arguments)
{
    m_logMark = LogMark();
    m_process.setProcessEnvironment(m_environment);
    m_process.start(kProgram, arguments);
    const bool started = m_process.waitForStarted(Bound(kPatience));
    m_pid = static_cast<pid_t>(m_process.processId());
    return started;
}

bool DaemonFixture::WaitUntilServing()
{
    const QDBusMessage introspect = QDBusMessage::createMethodCall(
        Service(), "/Applications", "org.freedesktop.DBus.Introspectable", "Introspect");
    bool serving = false;
    WaitFor([&] {
        const QDBusMessage reply =
            QDBusConnection::systemBus().call(introspect, QDBus::Block, Bound(kPatience));
        serving = reply.type() == QDBusMessage::ReplyMessage;
        return serving || !IsRunning();
    });
    return serving;
}

void DaemonFixture::Signal(int signo) const
{
    if (m_pid > 1) {
        kill(m_pid, signo);
    }
}

int DaemonFixture::WaitForExit(int milliseconds)
{
    if (!WaitFor([this] { return !IsRunning(); }, milliseconds)) {
        return -1;
    }
    return (m_process.exitStatus() == QProcess::CrashExit ? kSignalled : 0) + m_process.exitCode();
}

bool DaemonFixture::IsRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

int DaemonFixture::OpenDescriptors() const
{
    const QDir descriptors(QString("/proc/%1/fd").arg(m_pid));
    return descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

bool DaemonFixture::IsNameOwned()
{
    return QDBusConnection::systemBus().interface()->isServiceRegistered(Service());
}

LogRecord DaemonFixture::WaitForRecord(const QString& text) const
{
    LogRecord found;
    WaitFor([&] {
        const QVector<LogRecord> records = Records();
        const auto match = std::find_if(records.begin(), records.end(),
                                        [&](const LogRecord& record) { return record.text.contains(text); });
        if (match == records.end()) {
            return false;
        }
        found = *match;
        return true;
    });
    return found;
}

QVariantMap DaemonFixture::StartRequest(const QVariantMap& request)
{
    QDBusPendingReply<QVariantMap> reply = m_applications.Start(request);
    reply.waitForFinished();
    return reply.isError() ? QVariantMap{{"error", reply.error().message()}} : reply.value();
}

ApplicationList DaemonFixture::Enumerate()
{
    QDBusPendingReply<ApplicationList> reply = m_applications.Enumerate();
    reply.waitForFinished();
    return reply.value();
}

} // namespace kxtest
