#include "server/applications/processmanager/ProcessManager.h"

#include "misc/Log.h"
#include "misc/UniqueFd.h"
#include "misc/Utils.h"
#include "server/SignalHandling.h"
#include "server/applications/processmanager/ChildProcess.h"

#include <QDeadlineTimer>
#include <QStringList>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

using com::veltrasys::common::qt::qError;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/processmanager/ProcessManager";
constexpr auto kFunction = "StartProcess";
constexpr auto kSharedDirectory = "/shared";

/// Far more than a busy terminal needs, and less than a caller on the bus waits for its reply.
constexpr std::chrono::seconds kExecPatience{10};

/// The kernel gives arguments at most three quarters of the default stack, whatever the limit says.
long MaxArgumentBytes()
{
    constexpr long kKernelMaximum = 6L * 1024 * 1024;
    const long configured = sysconf(_SC_ARG_MAX);
    return configured < 0 ? kKernelMaximum : std::min(configured, kKernelMaximum);
}

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

/// Logs \a text with the error's text for %1.
void LogError(const QString& text, int error)
{
    qError() << KX_PREFIX_AS(kSource, kFunction) << text.arg(QString::fromLocal8Bit(std::strerror(error)));
}

/// A pipe whose write end closes when a program is executed.
bool OpenErrorPipe(Pipe& errorPipe)
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        LogError(QStringLiteral("Start: Error creating pipe (%1)"), errno);
        return false;
    }
    errorPipe.readEnd.Reset(ends[0]);
    errorPipe.writeEnd.Reset(ends[1]);
    if (fcntl(errorPipe.writeEnd.Get(), F_SETFD, FD_CLOEXEC) != 0) {
        const int error = errno;
        qError() << KX_PREFIX_AS(kSource, kFunction) << "Failed to start application, fcntl errno=" << error
                 << " " << std::strerror(error);
        return false;
    }
    return true;
}

/// \return as read does; -1 with ETIMEDOUT when nothing comes in time
ssize_t ReadInTime(int fd, void* buffer, size_t size)
{
    const QDeadlineTimer deadline(kExecPatience);
    struct pollfd entry = {fd, POLLIN, 0};
    ssize_t count = -1;
    do {
        const int ready = poll(&entry, 1, static_cast<int>(deadline.remainingTime()));
        if (ready == 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        count = ready > 0 ? read(fd, buffer, size) : -1;
    } while (count < 0 && errno == EINTR);
    return count;
}

/// Waits for the child to execute its program. One that does not get there is killed: it has the identity of
/// the application, which may have stopped it, or hold the program back with a lease, to block the daemon.
/// \return whether the pipe was closed without a word
bool WaitForExec(int readEnd, pid_t child)
{
    int childError = 0;
    const ssize_t count = ReadInTime(readEnd, &childError, sizeof(childError));
    if (count < 0) {
        const int error = errno;
        if (error == ETIMEDOUT) {
            kill(child, SIGKILL);
        }
        LogError(QStringLiteral("Start: Error reading from pipe (%1)"), error);
    } else if (count == static_cast<ssize_t>(sizeof(childError))) {
        LogError(QStringLiteral("Start: Failed to execute child (%1)"), childError);
    } else if (count > 0) {
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << "Start: Incorrect number of bytes read from pipe:" << static_cast<qint64>(count);
    }
    return count == 0;
}

bool Launch(const ChildProcess& child)
{
    Pipe errorPipe;
    if (!OpenErrorPipe(errorPipe)) {
        return false;
    }
    const SignalBlock block;
    const pid_t pid = fork();
    if (pid == 0) {
        RestoreDefaultSignals();
        block.Lift();
        child.Run(errorPipe.readEnd.Get(), errorPipe.writeEnd.Get());
    }
    const int error = errno;
    block.Lift();
    if (pid < 0) {
        LogError(QStringLiteral("Start: Failed to fork (%1)"), error);
        return false;
    }
    errorPipe.writeEnd.Reset();
    return WaitForExec(errorPipe.readEnd.Get(), pid);
}

} // namespace

ProcessManager::ProcessManager() : m_hasTerminal(ChildProcess::HasTerminal()) {}

bool ProcessManager::StartProcess(const QString& command,
                                  const core::configuration::ApplicationConfig& config)
{
    const int blank = command.indexOf(QLatin1Char(' '));
    const QString program = blank < 0 ? command : command.left(blank);
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
    // A caller may send a hundred times what any program can get; to take that apart costs seconds.
    if (params.size() > MaxArgumentBytes()) {
        LogError(QStringLiteral("Start: Failed to execute child (%1)"), E2BIG);
        return false;
    }
    return Launch(ChildProcess(program, params, config, m_hasTerminal));
}

bool ProcessManager::PrepareEnviornment(const core::configuration::ApplicationConfig& config)
{
    constexpr unsigned kPrivateMode = 0770;
    constexpr unsigned kPublicMode = 0777;
    if (!FileSystem::CreateDirIfNeeded(config.m_tmpDir, config.m_uid, config.m_gid, kPrivateMode)) {
        qError() << KX_PREFIX(kSource) << "Failed to create tmp dir";
        return false;
    }
    if (!FileSystem::CreateDirIfNeeded(QString::fromLatin1(kSharedDirectory), 0, 0, kPublicMode)) {
        qError() << KX_PREFIX(kSource) << "Failed to create shared dir";
        return false;
    }
    if (!config.m_fastCgi) {
        return true;
    }
    const QString socketDir = QStringLiteral("/var/run/sockets/") + config.m_name + QLatin1Char('/');
    if (!FileSystem::CreateDirIfNeeded(socketDir, config.m_uid, config.m_gid, kPrivateMode)) {
        qError() << KX_PREFIX(kSource) << "Failed to create socket dir dir";
        return false;
    }
    return true;
}

char** ProcessManager::GetPosixParameters(const QString& program, const QString& params)
{
    const QStringList parameters = params.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const auto size = static_cast<size_t>(parameters.size()) + 2;
    char** argv = new (std::nothrow) char* [size] {};
    if (argv == nullptr || program.isEmpty()) {
        return argv;
    }
    argv[0] = strdup(program.toUtf8().constData());
    size_t filled = 1;
    for (const QString& parameter : parameters) {
        if (argv[filled - 1] == nullptr) {
            break;
        }
        argv[filled++] = strdup(parameter.toLatin1().constData());
    }
    if (argv[filled - 1] == nullptr) {
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
