#pragma once

#include "server/applications/appconf/ApplicationConfig.h"
#include "server/applications/processmanager/ProcessManager.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>

#include <memory>
#include <vector>

namespace core::applications {

/// The program that a child is to become, with everything it needs in the form the system calls take. Built
/// before fork: the daemon has a second thread, so a child may not allocate, convert or look accounts up.
class ChildProcess {
public:
    /// \throws std::bad_alloc
    ChildProcess(const QString& program, const QString& params,
                 const core::configuration::ApplicationConfig& config);

    /// Runs in the forked child: enters the home directory, takes on the identity and executes the program.
    /// Uses async-signal-safe calls only until something fails. A failure is logged, and its errno written to
    /// \a writeEnd if the program could not be executed. noexcept: an exception ends the child, it must
    /// not unwind into the parent's code.
    ///
    /// \param readEnd   the parent's end of the pipe, closed first
    /// \param writeEnd  the child's end, close-on-exec
    [[noreturn]] void Run(int readEnd, int writeEnd) const noexcept;

private:
    struct FreeParameters {
        void operator()(char** argv) const { ProcessManager::FreePosixParameters(argv); }
    };

    QByteArray m_program;
    QByteArray m_homeLatin1;
    QByteArray m_homeUtf8;
    uid_t m_uid;
    gid_t m_gid;
    std::vector<gid_t> m_groups;
    std::unique_ptr<char*, FreeParameters> m_arguments; ///< null when memory was short
    std::vector<QByteArray> m_variables;
    std::vector<char*> m_environment; ///< null-terminated, points into m_variables
};

} // namespace core::applications
