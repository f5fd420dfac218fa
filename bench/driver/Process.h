#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kxbench {

struct Method;

constexpr auto kDaemon = "/usr/sbin/kxcore";
constexpr auto kPrograms = "/usr/libexec/kx-bench/";

/// \return CLOCK_MONOTONIC in microseconds
double Now();

/// Waits for a condition. Throws when it does not come true within five seconds.
void WaitFor(const std::string& what, const std::function<bool()>& condition);

/// A program that runs until this goes out of scope: it is asked to end then, and killed should it not.
class Process {
public:
    /// Starts \a command, its output thrown away, and notes when it was executed.
    /// \param variable  "NAME=value" to add to the environment
    explicit Process(const std::vector<std::string>& command, const std::string& variable = {});
    ~Process();
    Process(Process&& other) noexcept : m_pid(std::exchange(other.m_pid, -1)), m_executed(other.m_executed) {}
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    Process& operator=(Process&&) = delete;

    pid_t Pid() const { return m_pid; }
    double Executed() const { return m_executed; }

    /// \return the sum of the lines of /proc/<pid>/smaps_rollup that begin with \a key, in kB
    double Kilobytes(const std::string& key) const;

    /// \return the processor time of its threads so far, in milliseconds
    double ProcessorTime() const;

    /// \return how often its threads have gone to sleep so far
    long Sleeps() const;

private:
    pid_t m_pid;
    double m_executed;
};

/// The daemon, started and serving.
/// \param variable  as of Process
Process StartDaemon(const std::string& variable = {});

/// A program, started and serving.
/// \param ping  a method of the service that it is to own
Process StartService(const std::string& program, const Method& ping);

} // namespace kxbench
