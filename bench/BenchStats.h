#pragma once

// Order statistics the benchmarks print: a figure is a median over repeated
// runs with its spread beside it, because the machines are shared and noisy.

#include <algorithm>
#include <vector>

namespace benchstats {

// The value at share p (0..1) of the sorted runs; -1 when there are none.
inline double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(p * values.size()))];
}

inline double median(std::vector<double> values)
{
    return percentile(std::move(values), 0.5);
}

inline double worst(const std::vector<double> &values)
{
    return values.empty() ? -1 : *std::max_element(values.begin(), values.end());
}

inline double best(const std::vector<double> &values)
{
    return values.empty() ? -1 : *std::min_element(values.begin(), values.end());
}

} // namespace benchstats
