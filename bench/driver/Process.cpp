#include "Process.h"

#include "Bus.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace kxbench {
namespace {

constexpr double kPatience = 5e6;

void Sleep(long milliseconds)
{
    const struct timespec pause = {0, milliseconds * 1'000'000};
    nanosleep(&pause, nullptr);
}

/// The sum of the numbers after \a key in a file of lines "key: number".
long SumOf(const std::string& path, const std::string& key)
{
    std::ifstream file(path);
    long sum = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(key, 0) == 0) {
            sum += std::stol(line.substr(line.find(':') + 1));
        }
    }
    return sum;
}

/// Memory that a forked child shares with its parent.
double* SharedTime()
{
    static void* page =
        mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return static_cast<double*>(page);
}

[[noreturn]] void Execute(std::vector<char*>& arguments, const std::string& variable, double* executed)
{
    const int null = open("/dev/null", O_RDWR);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        dup2(null, fd);
    }
    close_range(STDERR_FILENO + 1, ~0U, 0);
    if (!variable.empty()) {
        putenv(const_cast<char*>(variable.c_str()));
    }
    *executed = Now();
    execvp(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

double Now()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

void WaitFor(const std::string& what, const std::function<bool()>& condition)
{
    const double deadline = Now() + kPatience;
    while (!condition()) {
        if (Now() > deadline) {
            throw std::runtime_error("waited in vain for " + what);
        }
        Sleep(1);
    }
}

Process::Process(const std::vector<std::string>& command, const std::string& variable)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    double* executed = SharedTime();
    *executed = 0;
    m_pid = fork();
    if (m_pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_pid == 0) {
        Execute(arguments, variable, executed);
    }
    WaitFor(command[0], [executed] { return *static_cast<volatile double*>(executed) > 0; });
    m_executed = *executed;
}

Process::~Process()
{
    if (m_pid < 0) {
        return;
    }
    kill(m_pid, SIGTERM);
    const double deadline = Now() + kPatience;
    while (waitpid(m_pid, nullptr, WNOHANG) == 0) {
        if (Now() > deadline) {
            kill(m_pid, SIGKILL);
        }
        Sleep(1);
    }
}

double Process::Kilobytes(const std::string& key) const
{
    return static_cast<double>(SumOf("/proc/" + std::to_string(m_pid) + "/smaps_rollup", key));
}

double Process::ProcessorTime() const
{
    double nanoseconds = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/task")) {
        double running = 0;
        std::ifstream(task.path() / "schedstat") >> running;
        nanoseconds += running;
    }
    return nanoseconds / 1e6;
}

long Process::Sleeps() const
{
    long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/task")) {
        sum += SumOf(task.path() / "status", "voluntary_ctxt_switches");
    }
    return sum;
}

Process StartDaemon(const std::string& variable)
{
    Process daemon({kDaemon, "--no-daemon"}, variable);
    Bus bus;
    WaitFor("the daemon", [&bus] { return bus.TryCall(kCheapest) >= 0; });
    return daemon;
}

Process StartService(const std::string& program, const Method& ping)
{
    Process service({program});
    Bus bus;
    WaitFor(program, [&] { return bus.TryCall(ping) >= 0; });
    return service;
}

} // namespace kxbench
