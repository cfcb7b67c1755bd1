// Percentiles of measured times.

#include "tools/tamo_load/Measurement.h"

#include <algorithm>
#include <cmath>

double Measurement::percentile(double percent) const
{
    if (times.empty())
        return 0;
    std::vector<double> sorted = times;
    const double rank = std::ceil(percent / 100 * static_cast<double>(sorted.size()));
    const auto nth = sorted.begin() + std::max<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(rank) - 1, 0);
    std::nth_element(sorted.begin(), nth, sorted.end());
    return *nth;
}
