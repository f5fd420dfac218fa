#include "server/applications/processmanager/ChildProcess.h"

#include "misc/Log.h"

#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using com::veltrasys::common::qt::qError;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/processmanager/ProcessManager";
constexpr auto kFunction = "StartProcess";

/// Initialised in this order, so that errno is read before the prefix is built.
struct FailedCall {
    const char* call; ///< as the log names it
    int error;
    QString prefix;
};

[[noreturn]] void ExitAfter(const FailedCall& failed)
{
    qError() << failed.prefix << " function " << failed.call << " errno " << failed.error << " "
             << std::strerror(failed.error) << " failed. Fatal error - exit";
    _exit(-1);
}

void LogFailed(const FailedCall& failed)
{
    qError() << failed.prefix << " function " << failed.call << " errno " << failed.error << " "
             << std::strerror(failed.error);
}

/// The groups that initgroups would set, which cannot be called in the child: it allocates and takes locks.
std::vector<gid_t> GroupsOf(const QByteArray& user, gid_t gid)
{
    int count = 16;
    // If the search fails, only the application's own group is set, never group 0.
    std::vector<gid_t> groups(count, gid);
    while (getgrouplist(user.constData(), gid, groups.data(), &count) < 0 &&
           static_cast<size_t>(count) > groups.size()) {
        groups.resize(count, gid);
    }
    groups.resize(count);
    return groups;
}

/// The application's variables, then what the daemon was started with but for those.
std::vector<QByteArray> EnvironmentOf(const core::configuration::ApplicationConfig& config)
{
    std::vector<QByteArray> variables{
        "APP_NAME=" + config.m_name.toUtf8(),      "APP_HOME_DIR=" + config.m_homeDir.toUtf8(),
        "APP_TMP_DIR=" + config.m_tmpDir.toUtf8(), "HOME=" + config.m_homeDir.toUtf8(),
        "USER=" + config.m_userName.toUtf8(),      "OLDPWD=" + config.m_homeDir.toUtf8(),
        "LOGNAME=" + config.m_userName.toUtf8(),   "APP_SHARED_DIR=/shared",
    };
    if (config.m_fastCgi) {
        variables.push_back("APP_FASTCGI_SOCKET=/var/run/sockets/" + config.m_name.toUtf8() + "/fcgi");
    }
    const std::vector<QByteArray> own = variables;
    for (char** inherited = environ; *inherited != nullptr; ++inherited) {
        const size_t nameLength = std::strcspn(*inherited, "=") + 1;
        if (std::none_of(own.begin(), own.end(), [&](const QByteArray& variable) {
                return std::strncmp(variable.constData(), *inherited, nameLength) == 0;
            })) {
            variables.emplace_back(*inherited);
        }
    }
    return variables;
}

} // namespace

ChildProcess::ChildProcess(const QString& program, const QString& params,
                           const core::configuration::ApplicationConfig& config)
    : m_program(program.toUtf8()),
      m_homeLatin1(config.m_homeDir.toLatin1()),
      m_homeUtf8(config.m_homeDir.toUtf8()),
      m_uid(config.m_uid),
      m_gid(config.m_gid),
      m_groups(GroupsOf(config.m_userName.toLatin1(), config.m_gid)),
      m_arguments(ProcessManager::GetPosixParameters(program, params)),
      m_variables(EnvironmentOf(config))
{
    for (QByteArray& variable : m_variables) {
        m_environment.push_back(variable.data());
    }
    m_environment.push_back(nullptr);
}

void ChildProcess::Run(int readEnd, int writeEnd) const noexcept
{
    close(readEnd);
    if (chdir(m_homeLatin1.constData()) != 0) {
        ExitAfter({"chdir( config.m_homeDir.toLatin1().data() )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (setgroups(m_groups.size(), m_groups.data()) != 0) {
        const QString reason = std::strerror(errno);
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("Start: initgroups() call failed (%1)").arg(reason);
    }
    if (prctl(PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L) != 0) {
        ExitAfter({"prctl( PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (setgid(m_gid) != 0) {
        ExitAfter({"setgid( config.m_gid )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (setegid(m_gid) != 0) {
        ExitAfter({"setegid( config.m_gid )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (setuid(m_uid) != 0) {
        ExitAfter({"setuid( config.m_uid )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (seteuid(m_uid) != 0) {
        ExitAfter({"seteuid ( config.m_uid )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (setpgid(0, 0) != 0) {
        ExitAfter({"setpgid ( 0, 0 )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (chdir(m_homeUtf8.constData()) != 0) {
        LogFailed({"chdir ( config.m_homeDir.toUtf8().data() )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    int error = ENOMEM;
    if (!m_arguments) {
        qError() << KX_PREFIX_AS(kSource, kFunction) << "GetPosixParameters() memory allocation error";
    } else {
        execve(m_program.constData(), m_arguments.get(), m_environment.data());
        error = errno;
        qError() << KX_PREFIX_AS(kSource, kFunction)
                 << QStringLiteral("Start: Failed to execute process (%1) %2")
                        .arg(std::strerror(error), QString::number(error));
    }
    if (write(writeEnd, &error, sizeof(error)) < static_cast<ssize_t>(sizeof(error))) {
        LogFailed({"write( fd[ 1 ], &err, sizeof( err ) )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    if (close(writeEnd) != 0) {
        LogFailed({"close( fd[ 1 ] )", errno, KX_PREFIX_AS(kSource, kFunction)});
    }
    _exit(1);
}

} // namespace core::applications
