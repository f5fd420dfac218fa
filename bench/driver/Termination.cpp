#include "Applications.h"
#include "Benchmarks.h"
#include "Bus.h"
#include "Process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

namespace kxbench {
namespace {

constexpr int kProcesses = 100;
constexpr double kPause = 250; // milliseconds the daemon waits between its two signals, as it must

double TimeDaemon(Bus& bus)
{
    for (int i = 0; i < kProcesses; ++i) {
        bus.Call(kStart, "a{sv}", 3, "application", "s", kApplication, "binary", "s", "sleep", "params", "s",
                 "1000");
    }
    const double begin = Now();
    bus.Call(kTerminate);
    return (Now() - begin) / 1000;
}

/// The same number of processes of the same program, signalled and collected by their parent.
double TimeKernel()
{
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            execl("/usr/bin/sleep", "sleep", "1000", nullptr);
            _exit(1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        WaitFor("sleep", [child] {
            return std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/exe").filename() ==
                   "sleep";
        });
    }
    const double begin = Now();
    for (const pid_t child : children) {
        kill(child, SIGTERM);
    }
    for (const pid_t child : children) {
        waitpid(child, nullptr, 0);
    }
    return (Now() - begin) / 1000;
}

} // namespace

Section MeasureTermination(const Options& options)
{
    InstallApplications(1);
    std::filesystem::copy_file("/usr/bin/sleep", std::string("/home/") + kApplication + "/bin/sleep");
    const Process daemon = StartDaemon();
    Bus bus;
    Samples core;
    Samples kernel;
    for (int i = options.Times(20, 5); i > 0; --i) {
        core.Add(TimeDaemon(bus));
        kernel.Add(TimeKernel());
    }
    const Samples floor(kPause + kernel.Median());
    return {"Termination",
            "`Terminate` with 100 processes of an application, none of which resists. Between its two "
            "signals the "
            "daemon waits 250 ms; the kernel's own time is that of a parent that signals and collects 100 "
            "children.",
            {{"ms",
              {{"kxcore `Terminate`", core, 0},
               {"the kernel, 100 children", kernel, 0},
               {"the pause of 250 ms and the kernel", floor, Ratio(core, floor)}}}},
            {}};
}

} // namespace kxbench
