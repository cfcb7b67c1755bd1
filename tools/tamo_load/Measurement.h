#pragma once

#include <chrono>
#include <string>
#include <vector>

/// What came of one kind of operation. Times are in microseconds.
struct Measurement {
    std::string name;
    std::vector<double> times; ///< of each operation; each client's in the order it made them
    double seconds = 0;        ///< from the first start to the last end, all clients together

    double operationsPerSecond() const { return seconds > 0 ? static_cast<double>(times.size()) / seconds : 0; }
    /// The time that `percent` of the operations did not exceed; 0 when there are none.
    double percentile(double percent) const;
};

inline double microsecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}
