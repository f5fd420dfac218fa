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

void AddRows(Table& table, int applications, const Samples& core, const Samples& qt)
{
    table.rows.push_back({"kxcore, " + std::to_string(applications) + " applications", core, 0});
    table.rows.push_back({"bare QtDBus program, by turns with it", qt, Ratio(core, qt)});
}

} // namespace

Section MeasureStartUp(const Options& options)
{
    constexpr std::array<int, 3> kCounts{0, 10, 100};
    Section section;
    section.title = "Start-up";
    section.text =
        "From `execve` until the service name has an owner, as the bus announces it, and until the first "
        "call is answered: the daemon has then read all applications and published them.";
    Table owned{"ms until the name is owned", {}};
    Table serving{"ms until a call is answered", {}};
    for (const int count : kCounts) {
        InstallApplications(count);
        Figures core;
        Figures qt;
        for (int i = options.Times(60, 15); i > 0; --i) {
            TimeStart({kDaemon, "--no-daemon"}, kCheapest, core);
            TimeStart({kQt.program}, kQt.ping, qt);
        }
        AddRows(owned, count, core.owned, qt.owned);
        AddRows(serving, count, core.serving, qt.serving);
        if (count == 10) {
            section.goals = {{"name owned with 10 applications at most 1.3 x bare QtDBus",
                              Ratio(core.owned, qt.owned), 1.3, "see the table"}};
        }
    }
    section.tables = {owned, serving};
    return section;
}

} // namespace kxbench
