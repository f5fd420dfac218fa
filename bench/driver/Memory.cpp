#include "Applications.h"
#include "Benchmarks.h"
#include "Bus.h"
#include "Process.h"

#include <array>

namespace kxbench {
namespace {

/// What processes hold, each kind of memory in a table.
class MemoryTables {
public:
    void AddRow(const std::string& name, const Process& process)
    {
        for (Kind& kind : m_kinds) {
            kind.table.rows.push_back({name, Samples(process.Kilobytes(kind.key)), 0});
        }
    }

    /// Adds a process that the first of all is compared with.
    /// \return the memory that the first has written to, over that of the reference
    double AddReference(const std::string& name, const QtService& service)
    {
        AddRow(name, StartService(service.program, service.ping));
        for (Kind& kind : m_kinds) {
            kind.table.rows.back().ratio =
                Ratio(kind.table.rows.front().samples, kind.table.rows.back().samples);
        }
        return m_kinds[kWritten].table.rows.back().ratio;
    }

    /// \return how much more memory the last row has written to than the row before, in kB
    double Growth() const
    {
        const auto last = m_kinds[kWritten].table.rows.end();
        return (last - 1)->samples.Median() - (last - 2)->samples.Median();
    }

    std::vector<Table> Tables() const { return {m_kinds[0].table, m_kinds[1].table, m_kinds[2].table}; }

private:
    static constexpr size_t kWritten = 1;
    struct Kind {
        const char* key; ///< of smaps_rollup
        Table table;
    };
    std::array<Kind, 3> m_kinds{{{"Private_", {"kB private", {}}},
                                 {"Private_Dirty", {"kB of it written to", {}}},
                                 {"Rss", {"kB resident", {}}}}};
};

void CallOften(int times)
{
    Bus bus;
    for (int i = 0; i < times; ++i) {
        // One in a hundred is the heaviest reading call.
        bus.Call(i % 100 == 0 ? kEnumerate : kCheapest);
    }
}

/// Measures the daemon with so many applications, at first and after calls.
/// \return by how much the second 10,000 calls made it grow, in kB
double MeasureDaemon(int applications, MemoryTables& tables)
{
    InstallApplications(applications);
    const std::string name = "kxcore, " + std::to_string(applications) + " applications";
    const Process daemon = StartDaemon();
    tables.AddRow(name + ", idle", daemon);
    for (const char* calls : {", after 10,000 calls", ", after 20,000 calls"}) {
        CallOften(10'000);
        tables.AddRow(name + calls, daemon);
    }
    return tables.Growth();
}

} // namespace

Section MeasureMemory(const Options& /*options*/)
{
    constexpr double kNoise = 64; // kB: pages that nothing had touched before
    MemoryTables tables;
    const double growth = MeasureDaemon(0, tables);
    const double growthWithApplications = MeasureDaemon(100, tables);
    const double ratio = tables.AddReference("bare QtDBus program, idle", kQt);
    Section section;
    section.title = "Memory";
    section.text =
        "What `/proc/<pid>/smaps_rollup` tells of the whole process. Private are also pages of libraries "
        "that no other process happens to map, and which the kernel may drop, so that this figure depends "
        "on what else runs; the goals are about the private memory that was written to. Of the calls one in "
        "a hundred is `Enumerate`, the others the cheapest. The first calls make the heap as large as it "
        "gets.";
    section.tables = tables.Tables();
    section.goals = {
        {"private memory, written to, idle at most 1.5 x bare QtDBus", ratio, 1.5, "see the table"},
        {"nothing grows from call 10,000 to 20,000 (kB written to)", growth, kNoise, "see the table"},
        {"nor with 100 applications (kB written to)", growthWithApplications, kNoise, "see the table"}};
    return section;
}

} // namespace kxbench
