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
#include <numeric>
#include <random>
#include <stdexcept>
#include <system_error>

namespace kxbench {
namespace {

constexpr size_t kFirstPeer = 2; ///< after the daemon and the bare launcher

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
    constexpr int kPerRest = 8;   // half of the supervisors' services
    constexpr double kRest = 6e5; // so that each has the second that supervisors want between two of its runs
    constexpr double kSettling = 5e3; // until the launcher before has collected its child
    InstallApplications(1);
    const StampPipe pipe;
    const auto launchers = StartLaunchers();
    std::vector<Row> rows;
    for (const auto& launcher : launchers) {
        rows.push_back({launcher->Name(), {}, 0});
        Latency(*launcher, pipe);
    }
    std::vector<size_t> order(launchers.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::minstd_rand random; // the same order in every run
    for (int turn = options.Times(25, 4); turn > 0; --turn) {
        const double begin = Now();
        for (int i = 0; i < kPerRest; ++i) {
            std::shuffle(order.begin(), order.end(), random);
            for (const size_t at : order) {
                const double settled = Now() + kSettling;
                WaitFor("the one before", [settled] { return Now() > settled; });
                rows[at].samples.Add(Latency(*launchers[at], pipe));
            }
        }
        WaitFor("the supervisors", [begin] { return Now() > begin + kRest; });
    }
    for (Row& row : rows) {
        row.ratio = Ratio(rows[0].samples, row.samples);
    }
    rows[0].ratio = 0;
    double peers = 0;
    for (size_t at = kFirstPeer; at < rows.size(); ++at) {
        peers = std::max(peers, rows[at].ratio);
    }
    const std::string reason =
        "the daemon checks program and account, and has more memory to be copied when it forks";
    Section section;
    section.title = "Launch latency";
    section.text = "From the request to the first instruction of the program, which notes the time before "
                   "any library is set up. "
                   "Each launcher changes to the application's account and is asked over its own control "
                   "channel: the bus, "
                   "runit's and s6's control pipes (their `run` script is a shell's `exec` of the tool that "
                   "changes the account), "
                   "supervisord's XML-RPC socket. They take turns, in an order that changes.";
    section.goals = {{"at most 1.25 x the bare launcher", rows[1].ratio, 1.25, reason},
                     {"at most half of dbus-daemon's activation", rows[kFirstPeer].ratio, 0.5, reason},
                     {"ahead of every peer", peers, 1, reason, true}};
    section.tables = {{"ms", std::move(rows)}};
    return section;
}

} // namespace kxbench
