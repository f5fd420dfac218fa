#include "Applications.h"
#include "Benchmarks.h"
#include "Process.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kxbench {
namespace {

constexpr auto kSummary = "/run/bench/strace";

/// \return the number of calls in the line "total" of strace's summary, which is missing when there were none
long CallsInSummary()
{
    std::ifstream file(kSummary);
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string share;
        std::string seconds;
        std::string perCall;
        long calls = 0;
        if (line.find("total") != std::string::npos && fields >> share >> seconds >> perCall >> calls) {
            return calls;
        }
    }
    return 0;
}

/// strace wakes each thread up when it begins.
bool IsTracedAndAsleep(const std::string& pid)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + pid + "/task")) {
        std::ifstream file(task.path() / "status");
        const std::string status{std::istreambuf_iterator<char>(file), {}};
        if (status.find("TracerPid:\t0\n") != std::string::npos ||
            status.find("State:\tS") == std::string::npos) {
            return false;
        }
    }
    return true;
}

} // namespace

Section MeasureIdle(const Options& options)
{
    const int seconds = options.Times(30, 5);
    InstallApplications(10);
    const Process daemon = StartDaemon();
    const std::string pid = std::to_string(daemon.Pid());
    long sleeps = 0;
    {
        static_cast<void>(std::remove(kSummary));
        const Process strace({"strace", "-f", "-c", "-o", kSummary, "-p", pid});
        WaitFor("strace", [&pid] { return IsTracedAndAsleep(pid); });
        const long attached = daemon.Sleeps();
        const double end = Now() + seconds * 1e6;
        while (Now() < end) {
            const struct timespec pause = {0, 100'000'000};
            nanosleep(&pause, nullptr);
        }
        sleeps = daemon.Sleeps() - attached;
    }
    const long calls = CallsInSummary();
    return {"Idle",
            "With 10 applications installed and nobody calling, for " + std::to_string(seconds) +
                " seconds: how often one of its threads woke up, and the system calls that `strace -f -c` "
                "counted.",
            {{"times",
              {{"wake-ups", Samples(static_cast<double>(sleeps)), 0},
               {"system calls", Samples(static_cast<double>(calls)), 0}}}},
            {{"no wake-ups", static_cast<double>(sleeps), 0, "see the table"},
             {"no system calls", static_cast<double>(calls), 0, "see the table"}}};
}

} // namespace kxbench
