#pragma once

namespace TAMO::Framework {

/// Runs work that is worth trying but not worth failing for, such as a log line while memory is short.
template <class Work>
void quietly(Work work) noexcept
{
    try {
        work();
    } catch (...) {
        // that it was tried is all that can be said
    }
}

} // namespace TAMO::Framework
