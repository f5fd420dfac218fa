#include "server/applications/processmanager/ProcessManager.h"

#include "misc/Log.h"
#include "misc/UniqueFd.h"
#include "misc/Utils.h"
#include "server/applications/processmanager/ChildProcess.h"

#include <QStringList>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

using com::veltrasys::common::qt::qError;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/processmanager/ProcessManager";
constexpr unsigned kPrivateMode = 0770;
constexpr unsigned kPublicMode = 0777;
constexpr int kExecTimeout = 10000; ///< ms

/// \return as read does; -1 with ETIMEDOUT when nothing arrives in time
ssize_t ReadInTime(int fd, int& value)
{
    // Any SIGCHLD would end the wait with EINTR.
    sigset_t all = {};
    sigset_t previous = {};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    struct pollfd entry = {fd, POLLIN, 0};
    const int ready = poll(&entry, 1, kExecTimeout);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (ready == 0) {
        errno = ETIMEDOUT;
    }
    return ready > 0 ? read(fd, &value, sizeof(value)) : -1;
}

} // namespace

bool ProcessManager::StartProcess(const QString& command,
                                  const core::configuration::ApplicationConfig& config)
{
    const int blank = command.indexOf(' ');
    const QString program = command.left(blank); // all of it without a blank
    const QString params = blank < 0 ? QString() : command.mid(blank + 1).trimmed();
    if (m_preparedAppName != config.m_name) {
        if (!PrepareEnviornment(config)) {
            return false;
        }
        m_preparedAppName = config.m_name;
    }
    if (program.isEmpty()) {
        return true;
    }
    const ChildProcess child(program, params, config);
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        const QString reason = std::strerror(errno);
        qError() << KX_PREFIX(kSource) << QStringLiteral("Start: Error creating pipe (%1)").arg(reason);
        return false;
    }
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    if (fcntl(writeEnd.Get(), F_SETFD, FD_CLOEXEC) != 0) {
        const int error = errno;
        qError() << KX_PREFIX(kSource) << "Failed to start application, fcntl errno=" << error << " "
                 << std::strerror(error);
        return false;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        const QString reason = std::strerror(errno);
        qError() << KX_PREFIX(kSource) << QStringLiteral("Start: Failed to fork (%1)").arg(reason);
        return false;
    }
    if (pid == 0) {
        child.Run(readEnd.Get(), writeEnd.Get());
    }
    writeEnd.Reset();
    int childError = 0;
    const ssize_t count = ReadInTime(readEnd.Get(), childError);
    if (count < 0) {
        const int error = errno;
        if (error == ETIMEDOUT) {
            kill(pid, SIGKILL); // the application, whose identity it has, may have stopped it
        }
        qError() << KX_PREFIX(kSource)
                 << QStringLiteral("Start: Error reading from pipe (%1)").arg(std::strerror(error));
    } else if (count == sizeof(childError)) {
        qError() << KX_PREFIX(kSource)
                 << QStringLiteral("Start: Failed to execute child (%1)").arg(std::strerror(childError));
    } else if (count > 0) {
        qError() << KX_PREFIX(kSource) << "Start: Incorrect number of bytes read from pipe:" << count;
    }
    return count == 0;
}

bool ProcessManager::PrepareEnviornment(const core::configuration::ApplicationConfig& config)
{
    if (!FileSystem::CreateDirIfNeeded(config.m_tmpDir, config.m_uid, config.m_gid, kPrivateMode)) {
        qError() << KX_PREFIX(kSource) << "Failed to create tmp dir";
        return false;
    }
    if (!FileSystem::CreateDirIfNeeded("/shared", 0, 0, kPublicMode)) {
        qError() << KX_PREFIX(kSource) << "Failed to create shared dir";
        return false;
    }
    if (!config.m_fastCgi) {
        return true;
    }
    const QString socketDir = "/var/run/sockets/" + config.m_name + "/";
    if (!FileSystem::CreateDirIfNeeded(socketDir, config.m_uid, config.m_gid, kPrivateMode)) {
        qError() << KX_PREFIX(kSource) << "Failed to create socket dir dir";
        return false;
    }
    return true;
}

char** ProcessManager::GetPosixParameters(const QString& program, const QString& params)
{
    const QStringList parameters = params.split(' ', Qt::SkipEmptyParts);
    const int count = parameters.size();
    char** argv = new (std::nothrow) char* [static_cast<size_t>(count) + 2] {};
    if (argv == nullptr || program.isEmpty()) {
        return argv;
    }
    argv[0] = strdup(program.toUtf8().constData());
    for (int i = 0; i < count && argv[i] != nullptr; ++i) {
        argv[i + 1] = strdup(parameters[i].toLatin1().constData());
    }
    if (argv[count] == nullptr) {
        FreePosixParameters(argv);
        return nullptr;
    }
    return argv;
}

void ProcessManager::FreePosixParameters(char** argv)
{
    if (argv == nullptr) {
        return;
    }
    for (char** argument = argv; *argument != nullptr; ++argument) {
        std::free(*argument); // NOLINT(cppcoreguidelines-no-malloc): made by strdup
    }
    delete[] argv;
}

} // namespace core::applications
