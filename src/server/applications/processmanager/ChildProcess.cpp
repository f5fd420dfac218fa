#include "server/applications/processmanager/ChildProcess.h"

#include "misc/Log.h"
#include "misc/UniqueFd.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

using com::veltrasys::common::qt::qError;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/processmanager/ProcessManager";
constexpr auto kFunction = "StartProcess";

void LogFailure(const char* call)
{
    const int error = errno;
    qError() << KX_PREFIX_AS(kSource, kFunction) << " function " << call << " errno " << error << " "
             << std::strerror(error);
}

[[noreturn]] void FailFatally(const char* call)
{
    const int error = errno;
    qError() << KX_PREFIX_AS(kSource, kFunction) << " function " << call << " errno " << error << " "
             << std::strerror(error) << " failed. Fatal error - exit";
    _exit(-1);
}

/// Replaces the variable's value where it stands, or adds the variable at the end.
void SetVariable(std::vector<QByteArray>& variables, const char* name, const QByteArray& value)
{
    const QByteArray start = QByteArray(name) + '=';
    const auto found = std::find_if(variables.begin(), variables.end(),
                                    [&](const QByteArray& variable) { return variable.startsWith(start); });
    if (found != variables.end()) {
        *found = start + value;
    } else {
        variables.push_back(start + value);
    }
}

constexpr std::array<int, 3> kStandardDescriptors{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

/// A daemon that stays in the foreground may have a terminal. That is its starter's, often root's, and
/// whoever has it as well can read what is typed there, and type.
void LeaveTerminal()
{
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (terminal >= 0) {
        ioctl(terminal, TIOCNOTTY);
        close(terminal);
    }
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int fd : kStandardDescriptors) {
        if (isatty(fd) == 1 && dup2(nothing, fd) != fd) {
            close(fd);
        }
    }
    close(nothing);
}

} // namespace

struct ChildProcess::Step {
    const char* call; ///< as the log names it
    int (*run)(const ChildProcess&);
};

ChildProcess::ChildProcess(const QString& program, const QString& params,
                           const core::configuration::ApplicationConfig& config, bool hasTerminal)
    : m_program(program.toUtf8()),
      m_homeLatin1(config.m_homeDir.toLatin1()),
      m_homeUtf8(config.m_homeDir.toUtf8()),
      m_uid(config.m_uid),
      m_gid(config.m_gid),
      m_hasTerminal(hasTerminal),
      m_arguments(ProcessManager::GetPosixParameters(program, params))
{
    FindGroups(config.m_userName);
    BuildEnvironment(config);
}

bool ChildProcess::HasTerminal()
{
    return UniqueFd(open("/dev/tty", O_RDWR | O_CLOEXEC)) ||
           std::any_of(kStandardDescriptors.begin(), kStandardDescriptors.end(),
                       [](int fd) { return isatty(fd) == 1; });
}

void ChildProcess::FindGroups(const QString& userName)
{
    const QByteArray user = userName.toLatin1();
    int count = 16;
    int found = -1;
    do {
        m_groups.resize(static_cast<size_t>(count), m_gid);
        found = getgrouplist(user.constData(), m_gid, m_groups.data(), &count);
    } while (found < 0 && static_cast<size_t>(count) > m_groups.size());
    // A search that ran out of memory leaves only the application's own group, never the zeros of root's.
    m_groups.resize(found < 0 ? 1 : static_cast<size_t>(found));
}

void ChildProcess::BuildEnvironment(const core::configuration::ApplicationConfig& config)
{
    for (char** variable = environ; *variable != nullptr; ++variable) {
        m_variables.emplace_back(*variable);
    }
    const QByteArray user = config.m_userName.toUtf8();
    SetVariable(m_variables, "APP_NAME", config.m_name.toUtf8());
    SetVariable(m_variables, "APP_HOME_DIR", m_homeUtf8);
    SetVariable(m_variables, "APP_TMP_DIR", config.m_tmpDir.toUtf8());
    if (config.m_fastCgi) {
        SetVariable(m_variables, "APP_FASTCGI_SOCKET",
                    "/var/run/sockets/" + config.m_name.toUtf8() + "/fcgi");
    }
    SetVariable(m_variables, "HOME", m_homeUtf8);
    SetVariable(m_variables, "USER", user);
    SetVariable(m_variables, "OLDPWD", m_homeUtf8);
    SetVariable(m_variables, "LOGNAME", user);
    SetVariable(m_variables, "APP_SHARED_DIR", "/shared");

    for (QByteArray& variable : m_variables) {
        m_environment.push_back(variable.data());
    }
    m_environment.push_back(nullptr);
}

void ChildProcess::TakeIdentity() const
{
    static constexpr std::array<Step, 6> kSteps{{
        {"prctl( PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L )",
         [](const ChildProcess&) { return prctl(PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L); }},
        {"setgid( config.m_gid )", [](const ChildProcess& child) { return setgid(child.m_gid); }},
        {"setegid( config.m_gid )", [](const ChildProcess& child) { return setegid(child.m_gid); }},
        {"setuid( config.m_uid )", [](const ChildProcess& child) { return setuid(child.m_uid); }},
        {"seteuid ( config.m_uid )", [](const ChildProcess& child) { return seteuid(child.m_uid); }},
        {"setpgid ( 0, 0 )", [](const ChildProcess&) { return setpgid(0, 0); }},
    }};

    if (setgroups(m_groups.size(), m_groups.data()) != 0) {
        const QString reason = QString::fromLocal8Bit(std::strerror(errno));
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("Start: initgroups() call failed (%1)").arg(reason);
    }
    for (const Step& step : kSteps) {
        if (step.run(*this) != 0) {
            FailFatally(step.call);
        }
    }
}

void ChildProcess::Run(int readEnd, int errorPipe) const
{
    close(readEnd);
    if (m_hasTerminal) {
        LeaveTerminal();
    }
    if (chdir(m_homeLatin1.constData()) != 0) {
        FailFatally("chdir( config.m_homeDir.toLatin1().data() )");
    }
    TakeIdentity();
    if (chdir(m_homeUtf8.constData()) != 0) {
        LogFailure("chdir ( config.m_homeDir.toUtf8().data() )");
    }
    if (!m_arguments) {
        qError() << KX_PREFIX_AS(kSource, kFunction) << "GetPosixParameters() memory allocation error";
        Report(ENOMEM, errorPipe);
    }
    execve(m_program.constData(), m_arguments.get(), m_environment.data());

    const int error = errno;
    qError() << KX_PREFIX_AS(kSource, kFunction)
             << QStringLiteral("Start: Failed to execute process (%1) %2")
                    .arg(QString::fromLocal8Bit(std::strerror(error)), QString::number(error));
    Report(error, errorPipe);
}

void ChildProcess::Report(int error, int errorPipe)
{
    const ssize_t written = write(errorPipe, &error, sizeof(error));
    if (written != static_cast<ssize_t>(sizeof(error))) {
        LogFailure("write( fd[ 1 ], &err, sizeof( err ) )");
    }
    if (close(errorPipe) != 0) {
        LogFailure("close( fd[ 1 ] )");
    }
    _exit(1);
}

} // namespace core::applications
