#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/// A bar on standard error that redraws itself in place, at most some twenty times a second.
class ProgressBar {
public:
    /// `total` is what `done` will reach; 0 when that is not known, then only the count is shown. A
    /// bar that is not `shown` writes nothing.
    ProgressBar(bool shown, std::uint64_t total) : m_shown(shown), m_total(total) {}
    /// Clears the line, so that a message can follow on it.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(std::uint64_t done, std::uint64_t objects);
    /// Draws the end state and leaves it standing.
    void finish(std::uint64_t objects);

private:
    void draw(std::uint64_t done, std::uint64_t objects);

    bool m_shown;
    std::uint64_t m_total;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_next{};
};
