#include "server/applications/processmanager/ProcessManager.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/appconf/AppConfigParser.h"

#include <QDir>
#include <QRegExp>

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/processmanager/ProcessManager";
constexpr std::chrono::milliseconds kPauseBetweenPasses{250};
constexpr std::chrono::seconds kRepeatInterval{1};

} // namespace

void ProcessManager::GetProcessUIDandGID(const QString& pid, unsigned int& uid, unsigned int& gid)
{
    const QString path = "/proc/" + pid;
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
                       .arg(QString::number(pid), std::strerror(error));
    }
    return result;
}

void ProcessManager::SignalApplicationProcesses()
{
    const QStringList processes =
        QDir("/proc/").entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name).filter(QRegExp("^[0-9]*$"));
    bool signalled = false;
    for (const int sig : {SIGTERM, SIGKILL}) {
        for (const QString& process : processes) {
            unsigned uid = 0;
            unsigned gid = 0;
            GetProcessUIDandGID(process, uid, gid);
            if (IsValidAppID(uid, gid)) {
                TerminateProcess(process.toInt(), sig);
                signalled = true;
            }
        }
        if (sig == SIGKILL || !signalled) {
            return;
        }
        Misc::Pause(kPauseBetweenPasses);
    }
}

void ProcessManager::TerminateApps()
{
    using Clock = std::chrono::steady_clock;
    SignalApplicationProcesses();
    auto repeatAt = Clock::now() + kRepeatInterval;
    for (;;) {
        int status = 0;
        errno = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        const int error = errno;
        if (ended == -1 && error == ECHILD) {
            break;
        }
        // A program can answer its SIGTERM with new children of the daemon (CLONE_PARENT).
        if (ended == -1 || Clock::now() >= repeatAt) {
            SignalApplicationProcesses();
            repeatAt = Clock::now() + kRepeatInterval;
        }
    }
    m_preparedAppName.clear();
}

} // namespace core::applications
