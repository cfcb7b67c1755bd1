// The stopwatch that the process exports.

#include "platform/utility/Timing.h"

timeval gT1{};
timeval gT2{};
double gElapsedTime = 5.0;

void Start() { gettimeofday(&gT1, nullptr); }

void Stop()
{
    gettimeofday(&gT2, nullptr);
    gElapsedTime =
        static_cast<double>(gT2.tv_usec - gT1.tv_usec) / 1000.0 + static_cast<double>(gT2.tv_sec - gT1.tv_sec) * 1000.0;
}
