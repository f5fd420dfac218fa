#include "Applications.h"
#include "Benchmarks.h"
#include "Bus.h"
#include "Process.h"

#include <array>

namespace kxbench {
namespace {

struct Figures {
    Samples owned;   ///< milliseconds from exec until the name is owned
    Samples serving; ///< until a call is answered
};

void TimeStart(const std::vector<std::string>& command, const Method& call, Figures& figures)
{
    Bus bus;
    bus.WatchName(call.service);
    const Process process(command);
    figures.owned.Add((bus.AwaitName() - process.Executed()) / 1000);
    while (bus.TryCall(call) < 0) {
    }
    figures.serving.Add((Now() - process.Executed()) / 1000);
}

} // namespace

Section MeasureStartUp(const Options& options)
{
    constexpr std::array<int, 3> kCounts{0, 10, 100};
    std::array<Figures, kCounts.size()> core;
    std::array<Figures, kCounts.size()> qt;
    for (size_t at = 0; at < kCounts.size(); ++at) {
        InstallApplications(kCounts[at]);
        for (int i = options.Times(60, 15); i > 0; --i) {
            TimeStart({kDaemon, "--no-daemon"}, kCheapest, core[at]);
            TimeStart({std::string(kPrograms) + "qt-service"}, kQtPing, qt[at]);
        }
    }
    Table owned{"ms until the name is owned", {}};
    Table serving{"ms until a call is answered", {}};
    for (size_t at = 0; at < kCounts.size(); ++at) {
        const std::string name = std::to_string(kCounts[at]) + " applications";
        const std::string bare = "bare QtDBus program, at the same time";
        owned.rows.push_back({"kxcore, " + name, core[at].owned, 0});
        owned.rows.push_back({bare, qt[at].owned, Ratio(core[at].owned, qt[at].owned)});
        serving.rows.push_back({"kxcore, " + name, core[at].serving, 0});
        serving.rows.push_back({bare, qt[at].serving, Ratio(core[at].serving, qt[at].serving)});
    }
    return {"Start-up",
            "From `execve` until the service name has an owner, as the bus announces it, and until the first "
            "call "
            "is answered: the daemon has then read all applications and published them.",
            {owned, serving},
            {{"name owned with 10 applications at most 1.3 x bare QtDBus", owned.rows[3].ratio, 1.3,
              "two thirds of the shared libraries that are loaded are those that libcurl needs, and libcurl "
              "is set "
              "up before `main` because threads may not run yet"}},
            {}};
}

} // namespace kxbench
