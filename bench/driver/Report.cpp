#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <sstream>

namespace kxbench {
namespace {

/// Three digits that mean something.
std::string Number(double value)
{
    const int digits = std::abs(value) >= 100 || value == std::floor(value) ? 0
                       : std::abs(value) >= 10                              ? 1
                                                                            : 2;
    std::ostringstream text;
    text << std::fixed << std::setprecision(digits) << value;
    return text.str();
}

void PrintTable(const Table& table)
{
    std::printf("| %s | median | 10 %% to 90 %% | n | kxcore takes |\n|---|---|---|---|---|\n",
                table.unit.c_str());
    for (const Row& row : table.rows) {
        const Samples& samples = row.samples;
        const std::string spread =
            samples.Count() < 2 ? ""
                                : Number(samples.Percentile(0.1)) + " to " + Number(samples.Percentile(0.9));
        const std::string ratio = row.ratio > 0 ? Number(row.ratio) + " x" : "";
        std::printf("| %s | %s | %s | %zu | %s |\n", row.name.c_str(), Number(samples.Median()).c_str(),
                    spread.c_str(), samples.Count(), ratio.c_str());
    }
    std::printf("\n");
}

void PrintGoal(const Goal& goal)
{
    const bool met = goal.below ? goal.measured < goal.limit : goal.measured <= goal.limit;
    std::printf("| %s | %s | %s |\n", goal.text.c_str(), Number(goal.measured).c_str(),
                met ? "met" : ("**missed**: " + goal.reason).c_str());
}

} // namespace

double Samples::Percentile(double share) const
{
    if (m_values.empty()) {
        return 0;
    }
    std::vector<double> values = m_values;
    const auto at = values.begin() + std::lround(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

double Ratio(const Samples& daemon, const Samples& reference)
{
    return reference.Median() > 0 ? daemon.Median() / reference.Median() : 0;
}

void Print(const Section& section)
{
    std::printf("## %s\n\n%s\n\n", section.title.c_str(), section.text.c_str());
    for (const Table& table : section.tables) {
        PrintTable(table);
    }
    if (!section.goals.empty()) {
        std::printf("| goal | measured | |\n|---|---|---|\n");
        std::for_each(section.goals.begin(), section.goals.end(), PrintGoal);
        std::printf("\n");
    }
    static_cast<void>(std::fflush(stdout));
}

} // namespace kxbench
