#include "Applications.h"
#include "Benchmarks.h"
#include "Bus.h"
#include "Process.h"

namespace kxbench {
namespace {

/// Adds what the process holds to both tables.
void Weigh(const std::string& name, const Process& process, Table& privateSet, Table& resident)
{
    privateSet.rows.push_back({name, Samples(process.Kilobytes("Private_")), 0});
    resident.rows.push_back({name, Samples(process.Kilobytes("Rss")), 0});
}

void CallOften(int times)
{
    Bus bus;
    for (int i = 0; i < times; ++i) {
        // One in a hundred is the heaviest reading call.
        bus.Call(i % 100 == 0 ? kEnumerate : kCheapest);
    }
}

} // namespace

Section MeasureMemory(const Options& /*options*/)
{
    Table privateSet{"kB private", {}};
    Table resident{"kB resident", {}};
    InstallApplications(0);
    {
        const Process daemon = StartDaemon();
        Weigh("kxcore, idle", daemon, privateSet, resident);
        CallOften(1000);
        Weigh("kxcore, after 1,000 calls", daemon, privateSet, resident);
        CallOften(9000);
        Weigh("kxcore, after 10,000 calls", daemon, privateSet, resident);
    }
    InstallApplications(100);
    {
        const Process daemon = StartDaemon();
        Weigh("kxcore, 100 applications", daemon, privateSet, resident);
        CallOften(1000);
        Weigh("kxcore, 100 applications, after 1,000 calls", daemon, privateSet, resident);
        CallOften(9000);
        Weigh("kxcore, 100 applications, after 10,000 calls", daemon, privateSet, resident);
    }
    const Process service = StartQtService();
    Weigh("bare QtDBus program, idle", service, privateSet, resident);
    for (Table* table : {&privateSet, &resident}) {
        table->rows.back().ratio = Ratio(table->rows.front().samples, table->rows.back().samples);
    }
    const auto growth = [&](size_t from, size_t to) {
        return privateSet.rows[to].samples.Median() - privateSet.rows[from].samples.Median();
    };
    return {"Memory",
            "What `/proc/<pid>/smaps_rollup` tells of the whole process. Of the calls one in a hundred is "
            "`Enumerate`, the others the cheapest.",
            {privateSet, resident},
            {{"private memory idle at most 1.5 x bare QtDBus", privateSet.rows.back().ratio, 1.5,
              "each of the libraries that libcurl needs brings data of its own"},
             {"nothing grows from call 1,000 to 10,000 (kB)", growth(1, 2), 64, "see the table"},
             {"nor with 100 applications (kB)", growth(4, 5), 64, "see the table"}},
            {}};
}

} // namespace kxbench
