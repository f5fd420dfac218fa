#pragma once

#include "server/applications/appconf/ApplicationConfig.h"

#include <QString>

namespace core::applications {

/// User and group ids of application accounts.
constexpr unsigned kFirstApplicationId = 4000;
constexpr unsigned kLastApplicationId = 4999;

/// \return whether both ids lie in that range; an unknown one, all bits set, does not
constexpr bool IsValidAppID(unsigned uid, unsigned gid)
{
    return uid >= kFirstApplicationId && uid <= kLastApplicationId && gid >= kFirstApplicationId &&
           gid <= kLastApplicationId;
}

/// Starts application programs under their own identity and ends all of them. Runs on the main thread and
/// blocks it; needs root.
class ProcessManager {
public:
    /// Launches a program as the application's user and group and waits until it is executed or has failed,
    /// at most 10 s. The program is neither waited for nor tracked further.
    ///
    /// \param command  program path up to the first blank, then parameters separated by blanks; a leading
    ///                 blank means no program: only the directories are prepared
    /// \param config   the application: identity, directories and what its environment says
    /// \return false when the directories cannot be prepared, no child can be made or the program cannot be
    ///         executed. True also when the child ended before that, because it could not take on its
    ///         identity or enter its home directory: that shows in the log only.
    ///
    /// Logs each failure at error level with the system's error text. A failed child ends with status 255,
    /// or 1 when the program could not be executed.
    bool StartProcess(const QString& command, const core::configuration::ApplicationConfig& config);

    /// Creates /tmp/<name> and, for FastCGI, /var/run/sockets/<name>/ for the application's identity (0770),
    /// and /shared for everyone (0777). Logs "Failed to create tmp dir", "Failed to create shared dir" or
    /// "Failed to create socket dir dir" at error level.
    /// \return whether all of them exist with owner and mode set
    static bool PrepareEnviornment(const core::configuration::ApplicationConfig& config);

    /// Builds an argument vector for execve: the program in UTF-8, then \a params split at blanks, in
    /// Latin-1, then a null pointer. There is no quoting.
    /// \return the vector, to be released with FreePosixParameters; null when memory is short
    static char** GetPosixParameters(const QString& program, const QString& params);

    /// Releases every string up to the first null pointer, then the vector; null is accepted.
    static void FreePosixParameters(char** argv);

    /// Owner ids of a process, all bits set when it cannot be examined.
    /// \param pid  process id in decimal
    static void GetProcessUIDandGID(const QString& pid, unsigned int& uid, unsigned int& gid);

    /// Sends SIGTERM and, 250 ms later, SIGKILL to every process whose user and group both are application
    /// accounts; then polls until the daemon has no children, and signals anew once a second.
    void TerminateApps();

    /// Sends \a sig to one process.
    /// \return the result of kill; -1 for a \a pid below 2 ("TerminateProcess: invalid PID", error level).
    ///         A failing kill is logged at info level.
    static int TerminateProcess(int pid, int sig);

private:
    static void SignalApplicationProcesses();

    QString m_preparedAppName; ///< application whose directories were prepared last
};

} // namespace core::applications
