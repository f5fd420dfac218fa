#pragma once

#include <QString>

#include <stdexcept>

namespace cli {

/// What scripts may rely on.
enum ExitStatus {
    Success = 0,
    Refused = 1,    ///< the daemon said no, or problems were found
    Misuse = 2,     ///< the command line does not make sense
    Unreachable = 3 ///< the daemon or the bus is not there
};

/// Ends the command with a status and one line on standard error.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const QString& message)
        : std::runtime_error(message.toStdString()), m_status(status)
    {}

    ExitStatus Status() const { return m_status; }

private:
    ExitStatus m_status;
};

} // namespace cli
