#pragma once

#include <chrono>
#include <thread>

namespace TAMO::Framework {

/// How long a thread that has just worked looks for more before it sleeps. Waking a sleeping core is
/// dearer than a fetch: a round trip without a database behind it (bench/MessageRoundTrip.cpp) takes
/// 16 us instead of 22 on 2 cores, and 4 clients at once 36 to 50 us instead of 70 to 95.
inline constexpr std::chrono::microseconds attentionSpan{50};

/// Asks `found` again and again for that long; true as soon as it answers true. Gives way to every
/// thread that can run.
template <class Found>
bool stayAttentive(Found found)
{
    const auto until = std::chrono::steady_clock::now() + attentionSpan;
    do {
        if (found())
            return true;
        std::this_thread::yield();
    } while (std::chrono::steady_clock::now() < until);
    return false;
}

} // namespace TAMO::Framework
