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
    /// \param hasTerminal  whether the daemon has a terminal that the program must not get
    /// \throws std::bad_alloc
    ChildProcess(const QString& program, const QString& params,
                 const core::configuration::ApplicationConfig& config, bool hasTerminal);

    /// \return whether this process controls a terminal or has one open as a standard descriptor
    static bool HasTerminal();

    /// Runs in the forked child: gives up the terminal, enters the home directory, takes on the identity and
    /// executes the program. Standard descriptors that are a terminal lead to /dev/null, others are kept.
    /// Uses async-signal-safe calls only until something fails; a failure is logged, and its errno written
    /// to \a errorPipe if the program could not be executed.
    ///
    /// \param readEnd    the parent's end of the pipe, closed first
    /// \param errorPipe  the child's end, close-on-exec
    [[noreturn]] void Run(int readEnd, int errorPipe) const;

private:
    struct FreeParameters {
        void operator()(char** argv) const { ProcessManager::FreePosixParameters(argv); }
    };
    struct Step;

    void BuildEnvironment(const core::configuration::ApplicationConfig& config);
    void FindGroups(const QString& userName);
    void TakeIdentity() const;
    [[noreturn]] static void Report(int error, int errorPipe);

    QByteArray m_program;
    QByteArray m_homeLatin1;
    QByteArray m_homeUtf8;
    uid_t m_uid;
    gid_t m_gid;
    bool m_hasTerminal;
    std::vector<gid_t> m_groups;
    std::unique_ptr<char*, FreeParameters> m_arguments; ///< null when memory was short
    std::vector<QByteArray> m_variables;
    std::vector<char*> m_environment; ///< null-terminated, points into m_variables
};

} // namespace core::applications
