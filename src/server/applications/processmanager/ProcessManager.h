#pragma once

#include "server/applications/appconf/ApplicationConfig.h"

#include <QString>
#include <QStringList>

namespace core::applications {

/// Starts application programs under their own identity and ends all of them. Runs on the main thread and
/// blocks it; needs root.
class ProcessManager {
public:
    /// Looks once whether the daemon has a terminal, which no program is to get; it never acquires one later.
    ProcessManager();

    /// Launches a program as the application's user and group and waits until it is executed or has failed.
    /// The program is neither waited for nor tracked further.
    ///
    /// \param command  program path up to the first blank, then parameters separated by blanks; a leading
    ///                 blank means no program: only the directories are prepared
    /// \param config   the application: identity, directories and what its environment says
    /// \return false when the directories cannot be prepared, no child can be made or the program cannot be
    ///         executed. True also when the child ended before that, because it could not take on its
    ///         identity or enter its home directory: that shows in the log only.
    ///
    /// Logs each failure at error level with the system's error text. The child's records and texts are
    /// fixed; it ends with status 255, or 1 when the program could not be executed.
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

    /// \return whether both ids are those of application accounts, 4000 to 4999
    static bool IsApplicationIdentity(unsigned uid, unsigned gid);

    /// Sends SIGTERM and, 250 ms later, SIGKILL to every process whose user and group both are application
    /// accounts; then waits, without sleeping, until the daemon has no children. When some are left after a
    /// second, those of application accounts that came meanwhile get SIGKILL.
    void TerminateApps();

    /// Sends \a sig to one process.
    /// \return the result of kill; -1 for a \a pid below 2 ("TerminateProcess: invalid PID", error level).
    ///         A failing kill is logged at info level.
    static int TerminateProcess(int pid, int sig);

private:
    static bool SignalProcesses(const QStringList& processes, int sig);
    static void SignalApplicationProcesses();

    bool m_hasTerminal;
    QString m_preparedAppName; ///< application whose directories were prepared last
};

} // namespace core::applications
