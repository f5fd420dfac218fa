#include "DaemonFixture.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingReply>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

namespace kxtest {
namespace {

constexpr auto kProgram = "/usr/sbin/kxcore";
constexpr auto kLog = "/var/log/messages";
constexpr auto kService = "com.veltrasys.kx.core";
constexpr auto kPrivateRootMarker = "/run/kx-private-root";
constexpr int kSignalled = 1000;

QString Service()
{
    return QString::fromLatin1(kService);
}

/// The daemon acts on the machine it runs on.
void RequirePrivateRoot()
{
    if (!QFileInfo::exists(QString::fromLatin1(kPrivateRootMarker))) {
        qFatal("not in the private root: run this test through scripts/sandbox");
    }
}

/// What this process was started with besides the standard streams must not reach the daemon.
void KeepDescriptorsToItself()
{
    const QStringList open = QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::System | QDir::AllEntries);
    for (const QString& fd : open) {
        if (fd.toInt() > STDERR_FILENO) {
            fcntl(fd.toInt(), F_SETFD, FD_CLOEXEC);
        }
    }
}

bool ParseRecord(const QString& logLine, LogRecord& record)
{
    static const QRegularExpression line(
        QStringLiteral(R"(^\w{3} +\d+ [\d:]{8} \S+ \w+\.(\w+) ([^ :\[]+)(?:\[\d+\])?: (.*)$)"));
    static const QRegularExpression prefix(
        QStringLiteral(R"(^platform/kx-core(?: ([^ :]*):([^:]*):(\d+))?: *(.*)$)"));
    const QRegularExpressionMatch outer = line.match(logLine);
    if (!outer.hasMatch() || outer.captured(2) != QLatin1String("kxcore")) {
        return false;
    }
    record.priority = outer.captured(1);
    record.program = outer.captured(2);
    record.text = outer.captured(3);
    const QRegularExpressionMatch inner = prefix.match(record.text);
    if (inner.hasMatch()) {
        record.file = inner.captured(1);
        record.function = inner.captured(2);
        record.line = inner.captured(3).toInt();
        record.text = inner.captured(4);
    }
    return true;
}

void WriteFile(const QString& home, const HomeFile& file)
{
    const QString path = home + QLatin1Char('/') + file.path;
    QDir().mkpath(QFileInfo(path).path());
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        out.write(file.content) != file.content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
    out.close();
    chmod(QFile::encodeName(path).constData(), file.mode);
}

/// Gives the directory and all below it to an account; links themselves, not what they point to.
void ChangeOwner(const QString& path, unsigned uid, unsigned gid)
{
    if (lchown(QFile::encodeName(path).constData(), uid, gid) != 0) {
        qFatal("cannot change the owner of %s", qPrintable(path));
    }
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink()) {
        const QStringList names =
            QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        for (const QString& name : names) {
            ChangeOwner(path + QLatin1Char('/') + name, uid, gid);
        }
    }
}

QStringList ProcessNames()
{
    static const QRegularExpression number(QStringLiteral("^[0-9]+$"));
    return QDir(QStringLiteral("/proc")).entryList(QDir::Dirs).filter(number);
}

int StatusOf(int waitStatus)
{
    return WIFSIGNALED(waitStatus) ? kSignalled + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

} // namespace

int Bound(int milliseconds)
{
    static const double factor = [] {
        const double value = qgetenv("KX_TIME_FACTOR").toDouble();
        return value > 0 ? value : 1.0;
    }();
    return static_cast<int>(milliseconds * factor);
}

qint64 LogMark()
{
    return QFileInfo(QString::fromLatin1(kLog)).size();
}

QVector<LogRecord> LogSince(qint64 mark)
{
    QVector<LogRecord> records;
    QFile log(QString::fromLatin1(kLog));
    if (log.open(QIODevice::ReadOnly) && log.seek(mark)) {
        const QStringList lines = QString::fromLocal8Bit(log.readAll()).split(QLatin1Char('\n'));
        for (const QString& line : lines) {
            LogRecord record;
            if (ParseRecord(line, record)) {
                records.append(record);
            }
        }
    }
    return records;
}

QByteArray ContentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString InstallApplication(const QString& name, unsigned uid, unsigned gid, const QByteArray& appConf,
                           const QVector<HomeFile>& files)
{
    const QString home = QStringLiteral("/home/") + name;
    QDir(home).removeRecursively();
    if (!QDir().mkpath(home)) {
        qFatal("cannot create %s", qPrintable(home));
    }
    if (!appConf.isEmpty()) {
        WriteFile(home, {QStringLiteral("app.conf"), appConf});
    }
    for (const HomeFile& file : files) {
        WriteFile(home, file);
    }
    ChangeOwner(home, uid, gid);
    return home;
}

void RemoveApplications()
{
    const QDir home(QStringLiteral("/home"));
    for (const QString& name : home.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot)) {
        QDir(home.filePath(name)).removeRecursively();
    }
}

HomeFile IdleProgram(const QString& path)
{
    return {path, ContentOf(QStringLiteral("/usr/bin/sleep")), 0755};
}

HomeFile Script(const QString& path, const QByteArray& commands)
{
    return {path, "#!/bin/sh\n" + commands, 0755};
}

QStringList PlatformCalls()
{
    const QString calls = QString::fromLocal8Bit(ContentOf(QStringLiteral("/run/standins/calls")));
    return calls.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QVector<pid_t> ProcessesOf(const QString& program)
{
    QVector<pid_t> found;
    for (const QString& pid : ProcessNames()) {
        const QByteArray commandLine = ContentOf(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (commandLine.constData() == program.toLocal8Bit()) {
            found.append(pid.toInt());
        }
    }
    return found;
}

QVector<QPair<pid_t, char>> ChildrenOf(pid_t parent)
{
    // "pid (name) state parent ...", where the name may hold anything.
    static const QRegularExpression stat(QStringLiteral(R"(\) (\w) (\d+) [^)]*$)"));
    QVector<QPair<pid_t, char>> children;
    for (const QString& pid : ProcessNames()) {
        const auto match =
            stat.match(QString::fromLocal8Bit(ContentOf(QStringLiteral("/proc/%1/stat").arg(pid))));
        if (match.hasMatch() && match.captured(2).toInt() == parent) {
            children.append({pid.toInt(), match.captured(1).at(0).toLatin1()});
        }
    }
    return children;
}

DaemonFixture::DaemonFixture()
    : m_applications(Service(), QStringLiteral("/Applications"), QDBusConnection::systemBus(), nullptr)
{
    RequirePrivateRoot();
    RegisterApplicationList();
    KeepDescriptorsToItself();
    m_process.setWorkingDirectory(QStringLiteral("/"));
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

void DaemonFixture::SetEnvironment(const QString& name, const QString& value)
{
    m_environment.insert(name, value);
}

void DaemonFixture::Preload(const QString& library)
{
    SetEnvironment(QStringLiteral("LD_PRELOAD"), library);
    // A sanitizer's runtime wants to be the first library, for the sake of functions that these leave alone.
    const QString asan = QStringLiteral("ASAN_OPTIONS");
    SetEnvironment(asan, m_environment.value(asan) + QStringLiteral(":verify_asan_link_order=0"));
}

void DaemonFixture::InjectFault(const QString& fault)
{
    Preload(QStringLiteral(KX_FAULT_INJECTION_LIBRARY));
    SetEnvironment(QStringLiteral("KX_FAULT"), fault);
}

bool DaemonFixture::Launch(const QStringList& arguments)
{
    m_logMark = LogMark();
    m_detached = false;
    m_process.setProcessEnvironment(m_environment);
    m_process.start(QString::fromLatin1(kProgram), arguments);
    const bool started = m_process.waitForStarted(Bound(kPatience));
    m_pid = static_cast<pid_t>(m_process.processId());
    return started;
}

bool DaemonFixture::Start(const QStringList& arguments)
{
    return Launch(arguments) && WaitUntilServing();
}

bool DaemonFixture::WaitUntilServing()
{
    const QDBusMessage introspect = QDBusMessage::createMethodCall(
        Service(), QStringLiteral("/Applications"), QStringLiteral("org.freedesktop.DBus.Introspectable"),
        QStringLiteral("Introspect"));
    bool serving = false;
    WaitFor([&] {
        const QDBusMessage reply =
            QDBusConnection::systemBus().call(introspect, QDBus::Block, Bound(kPatience));
        serving = reply.type() == QDBusMessage::ReplyMessage;
        return serving || !IsRunning();
    });
    return serving;
}

bool DaemonFixture::AdoptsOrphans()
{
    return prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
}

bool DaemonFixture::LaunchDetached(const QStringList& arguments)
{
    AdoptsOrphans();
    const auto before = ChildrenOf(getpid());
    if (!Launch(arguments) || WaitForExit() != 0) {
        return false;
    }
    for (const auto& child : ChildrenOf(getpid())) {
        const auto isChild = [&](const QPair<pid_t, char>& other) { return other.first == child.first; };
        if (std::none_of(before.begin(), before.end(), isChild)) {
            m_pid = child.first;
            m_detached = true;
        }
    }
    return m_detached;
}

void DaemonFixture::Signal(int signo) const
{
    if (m_pid > 1) {
        kill(m_pid, signo);
    }
}

int DaemonFixture::WaitForExit(int milliseconds)
{
    if (!m_detached) {
        if (!WaitFor([this] { return !IsRunning(); }, milliseconds)) {
            return -1;
        }
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode()
                                                              : kSignalled + m_process.exitCode();
    }
    int status = 0;
    if (!WaitFor([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, milliseconds)) {
        return -1;
    }
    m_detached = false;
    return StatusOf(status);
}

int DaemonFixture::Stop()
{
    Signal(SIGTERM);
    return WaitForExit();
}

bool DaemonFixture::IsRunning() const
{
    if (!m_detached) {
        return m_process.state() != QProcess::NotRunning;
    }
    siginfo_t ended = {};
    return waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

bool DaemonFixture::IsBusRunning()
{
    return QDBusConnection::systemBus().isConnected();
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
    return reply.isError() ? QVariantMap{{QStringLiteral("error"), reply.error().message()}} : reply.value();
}

ApplicationList DaemonFixture::Enumerate()
{
    QDBusPendingReply<ApplicationList> reply = m_applications.Enumerate();
    reply.waitForFinished();
    return reply.value();
}

} // namespace kxtest
