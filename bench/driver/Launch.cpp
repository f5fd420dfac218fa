#include "Applications.h"
#include "Benchmarks.h"
#include "Peers.h"
#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <system_error>

namespace kxbench {
namespace {

/// The pipe that the launched program writes to.
class StampPipe {
public:
    StampPipe()
    {
        unlink(kPath);
        const mode_t before = umask(0);
        const int made = mkfifo(kPath, 0666);
        umask(before);
        m_fd = made == 0 ? open(kPath, O_RDWR | O_CLOEXEC) : -1;
        if (m_fd < 0) {
            throw std::system_error(errno, std::generic_category(), kPath);
        }
    }
    ~StampPipe() { close(m_fd); }
    StampPipe(const StampPipe&) = delete;
    StampPipe& operator=(const StampPipe&) = delete;

    /// \return when the program ran its first instructions
    double Read() const
    {
        struct pollfd entry = {m_fd, POLLIN, 0};
        struct timespec stamp = {};
        if (poll(&entry, 1, 5000) != 1 || read(m_fd, &stamp, sizeof(stamp)) != sizeof(stamp)) {
            throw std::runtime_error("the program was not launched");
        }
        return static_cast<double>(stamp.tv_sec) * 1e6 + static_cast<double>(stamp.tv_nsec) / 1e3;
    }

private:
    static constexpr auto kPath = "/run/bench/stamp";
    int m_fd;
};

double Latency(Launcher& launcher, const StampPipe& pipe)
{
    const double asked = Now();
    launcher.Launch();
    return (pipe.Read() - asked) / 1000;
}

} // namespace

Section MeasureLaunch(const Options& options)
{
    constexpr double kRest = 1.2e6; // what supervisors need between two runs of a service
    InstallApplications(1);
    const StampPipe pipe;
    const auto launchers = StartLaunchers();
    std::vector<Row> rows;
    for (const auto& launcher : launchers) {
        rows.push_back({launcher->Name(), {}, 0});
        Latency(*launcher, pipe);
    }
    constexpr int kPerRest = 8; // half of the supervisors' services
    for (int turn = options.Times(25, 4); turn > 0; --turn) {
        const double begin = Now();
        for (int i = 0; i < kPerRest; ++i) {
            for (size_t at = 0; at < launchers.size(); ++at) {
                rows[at].samples.Add(Latency(*launchers[at], pipe));
            }
        }
        WaitFor("the supervisors", [begin] { return Now() > begin + kRest / 2; });
    }
    double slowestAhead = 0;
    for (size_t at = 1; at < rows.size(); ++at) {
        rows[at].ratio = Ratio(rows[0].samples, rows[at].samples);
        slowestAhead = at > 1 ? std::max(slowestAhead, rows[at].ratio) : 0;
    }
    return {
        "Launch latency",
        "From the request to the first instruction of the program, which notes the time before any library "
        "is "
        "set up. Each launcher changes to the application's account and is asked over its own control "
        "channel: "
        "the bus, runit's and s6's control pipes (their `run` script is a shell's `exec` of the tool that "
        "changes the account), supervisord's XML-RPC socket. They take turns.",
        {{"ms", rows}},
        {{"at most 1.25 x the limit", rows[1].ratio, 1.25,
          "the daemon checks the program and the account, and hears from the child that it was executed"},
         {"at most half of dbus-daemon's activation", rows[2].ratio, 0.5, "see above"},
         {"ahead of every peer", slowestAhead, 1, "see above", true}},
        {}};
}

} // namespace kxbench
