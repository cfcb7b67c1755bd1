#pragma once

#include <chrono>
#include <thread>

namespace TAMO::Framework {

/// How long a thread that has just worked looks for more before it sleeps. Waking a sleeping core
/// takes some 25 us, more than a fetch: on 2 otherwise idle cores the round trip of a request fell
/// from 80 us to 17 us, and four clients got half as many answers again (docs/performance.md).
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
