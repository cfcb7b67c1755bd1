// The progress bar of import. It writes with plain stderr calls: one write a redraw, no flicker.

#include "tools/tamoctl/ProgressBar.h"

#include <cstdio>

namespace {

constexpr std::size_t barWidth = 40;
constexpr std::chrono::milliseconds redrawEvery{50};
constexpr const char* clearLine = "\r\033[K";

} // namespace

ProgressBar::~ProgressBar()
{
    if (m_drawn)
        std::fputs(clearLine, stderr);
}

void ProgressBar::update(std::uint64_t done, std::uint64_t objects)
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_shown || now < m_next)
        return;
    m_next = now + redrawEvery;
    draw(done, objects);
}

void ProgressBar::finish(std::uint64_t objects)
{
    if (!m_shown)
        return;
    draw(m_total, objects);
    std::fputc('\n', stderr);
    m_drawn = false;
}

void ProgressBar::draw(std::uint64_t done, std::uint64_t objects)
{
    std::string line = clearLine;
    if (m_total > 0) {
        const std::uint64_t part = done < m_total ? done : m_total;
        const std::size_t filled = static_cast<std::size_t>(part * barWidth / m_total);
        line.append("[").append(filled, '#').append(barWidth - filled, ' ').append("] ");
        const std::string percent = std::to_string(part * 100 / m_total);
        line.append(3 - percent.size(), ' ').append(percent).append("%  ");
    }
    line.append(std::to_string(objects)).append(objects == 1 ? " object" : " objects");
    std::fputs(line.c_str(), stderr);
    m_drawn = true;
}
