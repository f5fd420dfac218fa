#pragma once

#include <string>
#include <vector>

namespace kxbench {

/// Figures of one thing that was measured again and again, in one unit.
class Samples {
public:
    Samples() = default;
    explicit Samples(double only) : m_values{only} {}

    void Add(double value) { m_values.push_back(value); }
    size_t Count() const { return m_values.size(); }

    /// \param share  0 to 1
    /// \return the value that this share of the figures does not exceed
    double Percentile(double share) const;
    double Median() const { return Percentile(0.5); }

private:
    std::vector<double> m_values;
};

struct Row {
    std::string name;
    Samples samples;
    double ratio = 0; ///< the daemon's median over this one's; 0 where there is nothing to compare
};

/// What the daemon is to reach: a measured number of at most, or with \a below less than, a limit.
struct Goal {
    std::string text;
    double measured;
    double limit;
    std::string reason; ///< why it is missed, should it be
    bool below = false;
};

struct Table {
    std::string unit;
    std::vector<Row> rows;
};

/// One section of the report.
struct Section {
    std::string title;
    std::string text; ///< what was measured, and how
    std::vector<Table> tables;
    std::vector<Goal> goals;
};

/// Writes the section to standard output, as Markdown.
void Print(const Section& section);

/// \return \a daemon's median over \a reference's
double Ratio(const Samples& daemon, const Samples& reference);

} // namespace kxbench
