#pragma once

#include <chrono>
#include <thread>

namespace TAMO::Framework {

/// How long a thread that has just worked looks for more before it sleeps. Waking a sleeping core is
/// dearer than a fetch: without this a round trip takes about five times as long (docs/performance.md).
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
