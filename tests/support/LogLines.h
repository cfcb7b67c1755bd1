#pragma once

#include "platform/host/LogSink.h"
#include "platform/middleware/mw_api.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// The lines logged while it lives, from level info on.
class LogLines {
public:
    LogLines()
    {
        mw_log::setSink([this](unsigned level, const std::string& text) {
            const std::lock_guard lock(m_mutex);
            m_lines.emplace_back(level, text);
        });
    }
    ~LogLines() { mw_log::setSink({}); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    /// How many lines of a level hold `part`.
    int count(unsigned level, const std::string& part = "") const
    {
        const std::lock_guard lock(m_mutex);
        int found = 0;
        for (const auto& [of, text] : m_lines)
            found += of == level && text.find(part) != std::string::npos;
        return found;
    }
    void forget()
    {
        const std::lock_guard lock(m_mutex);
        m_lines.clear();
    }
    /// All lines, for the message of a failed test.
    std::string all() const
    {
        const std::lock_guard lock(m_mutex);
        std::string lines = "lines logged:\n";
        for (const auto& [level, text] : m_lines)
            lines += std::to_string(level) + " " + text.substr(0, 300) + "\n";
        return lines;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::pair<unsigned, std::string>> m_lines;
};
