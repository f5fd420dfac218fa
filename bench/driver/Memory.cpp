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

/// Adds what the daemon holds with so many applications, at first and after calls.
/// \return by how much the second 10,000 calls made its private memory grow, in kB
double WeighDaemon(int applications, Table& privateSet, Table& resident)
{
    InstallApplications(applications);
    const std::string name = "kxcore, " + std::to_string(applications) + " applications";
    const Process daemon = StartDaemon();
    Weigh(name + ", idle", daemon, privateSet, resident);
    for (const char* calls : {", after 10,000 calls", ", after 20,000 calls"}) {
        CallOften(10'000);
        Weigh(name + calls, daemon, privateSet, resident);
    }
    const auto last = privateSet.rows.end();
    return (last - 1)->samples.Median() - (last - 2)->samples.Median();
}

} // namespace

Section MeasureMemory(const Options& /*options*/)
{
    constexpr double kNoise = 16; // kB: a few pages that were not touched before
    Table privateSet{"kB private", {}};
    Table resident{"kB resident", {}};
    const double growth = WeighDaemon(0, privateSet, resident);
    const double growthWithApplications = WeighDaemon(100, privateSet, resident);
    for (const QtService* reference : {&kQt, &kQtCurl}) {
        const Process service = StartService(reference->program, reference->ping);
        Weigh(reference == &kQt ? "bare QtDBus program, idle" : "the same with libcurl set up", service,
              privateSet, resident);
        for (Table* table : {&privateSet, &resident}) {
            table->rows.back().ratio = Ratio(table->rows.front().samples, table->rows.back().samples);
        }
    }
    Section section;
    section.title = "Memory";
    section.text =
        "What `/proc/<pid>/smaps_rollup` tells of the whole process. Of the calls one in a hundred is "
        "`Enumerate`, the others the cheapest. The first calls make the heap as large as it gets.";
    section.goals = {
        {"private memory idle at most 1.5 x bare QtDBus", (privateSet.rows.end() - 2)->ratio, 1.5,
         "each of the libraries that libcurl needs brings data of its own, which the linker relocates: "
         "see the program with libcurl"},
        {"nothing grows from call 10,000 to 20,000 (kB)", growth, kNoise, "see the table"},
        {"nor with 100 applications (kB)", growthWithApplications, kNoise, "see the table"}};
    section.tables = {privateSet, resident};
    return section;
}

} // namespace kxbench
