#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/ApplicationIds.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/processmanager/ProcessManager.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QRegExp>

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/processmanager/ProcessManager";
constexpr std::chrono::milliseconds kGracePeriod{250};

/// Far more than the system needs to end what was killed.
constexpr std::chrono::seconds kEndPatience{1};

QStringList ListProcesses()
{
    const QStringList directories =
        QDir(QStringLiteral("/proc/")).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    return directories.filter(QRegExp(QStringLiteral("^[0-9]*$")));
}

} // namespace

bool ProcessManager::IsApplicationIdentity(unsigned uid, unsigned gid)
{
    return IsApplicationId(uid) && IsApplicationId(gid);
}

void ProcessManager::GetProcessUIDandGID(const QString& pid, unsigned int& uid, unsigned int& gid)
{
    const QString path = QStringLiteral("/proc/") + pid;
    core::configuration::Parser::GetResourceUIDandGID(&path, uid, gid);
}

int ProcessManager::TerminateProcess(int pid, int sig)
{
    if (pid < 2) {
        qError() << KX_PREFIX(kSource) << "TerminateProcess: invalid PID";
        return -1;
    }
    const int result = kill(pid, sig);
    const int error = errno;
    if (result != 0 && error != ECHILD) {
        qInfo() << KX_PREFIX(kSource)
                << QStringLiteral("TerminateProcess: kill() call failed for PID=%1 (%2)")
                       .arg(QString::number(pid), QString::fromLocal8Bit(std::strerror(error)));
    }
    return result;
}

bool ProcessManager::SignalProcesses(const QStringList& processes, int sig)
{
    bool signalled = false;
    for (const QString& process : processes) {
        unsigned uid = 0;
        unsigned gid = 0;
        GetProcessUIDandGID(process, uid, gid);
        if (IsApplicationIdentity(uid, gid)) {
            TerminateProcess(process.toInt(), sig);
            signalled = true;
        }
    }
    return signalled;
}

void ProcessManager::SignalApplicationProcesses()
{
    const QStringList processes = ListProcesses();
    if (SignalProcesses(processes, SIGTERM)) {
        Misc::Pause(kGracePeriod);
        SignalProcesses(processes, SIGKILL);
    }
}

void ProcessManager::TerminateApps()
{
    SignalApplicationProcesses();
    const QDeadlineTimer patience(kEndPatience);
    for (;;) {
        int status = 0;
        errno = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended == -1 && errno == ECHILD) {
            break;
        }
        if (ended == -1) {
            SignalApplicationProcesses();
        }
        // Whoever is asked to end can answer by making more children of the daemon (CLONE_PARENT). They came
        // too late for the list, and are not asked again.
        if (patience.hasExpired()) {
            SignalProcesses(ListProcesses(), SIGKILL);
        }
    }
    m_preparedAppName.clear();
}

} // namespace core::applications
