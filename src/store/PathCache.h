#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

/// Where parents stand: most look-ups go below a few objects again and again, and every level of a
/// path costs a statement. Whoever gives an object another DN or parent, makes one or removes one
/// clears it. Holds a bounded number of parents and starts over when they are more.
class PathCache {
public:
    static constexpr std::size_t capacity = 1024;

    /// Null when it is not known.
    const std::string* wholeDn(std::int32_t id) const
    {
        const auto found = m_wholeDns.find(id);
        return found == m_wholeDns.end() ? nullptr : &found->second;
    }
    /// 0 when it is not known.
    std::int32_t id(const std::string& wholeDn) const
    {
        const auto found = m_ids.find(wholeDn);
        return found == m_ids.end() ? 0 : found->second;
    }
    void rememberWholeDn(std::int32_t id, std::string wholeDn)
    {
        if (m_wholeDns.size() >= capacity)
            m_wholeDns.clear();
        m_wholeDns.insert_or_assign(id, std::move(wholeDn));
    }
    void rememberId(std::string wholeDn, std::int32_t id)
    {
        if (m_ids.size() >= capacity)
            m_ids.clear();
        m_ids.insert_or_assign(std::move(wholeDn), id);
    }
    void clear()
    {
        if (!m_wholeDns.empty()) // an empty map would still go over its buckets
            m_wholeDns.clear();
        if (!m_ids.empty())
            m_ids.clear();
    }

private:
    std::unordered_map<std::int32_t, std::string> m_wholeDns;
    std::unordered_map<std::string, std::int32_t> m_ids; ///< of DNs of several pairs, as they were written
};

/// Where paths may begin other than at the root: the objects with a given pair that stand below
/// others. No index finds them, so a DN that is not there would cost a look at every row each time.
class InnerStarts {
public:
    static constexpr std::size_t capacity = 64;

    /// The ids of the objects with that pair that have a parent, ascending; null when it is not known.
    const std::vector<std::int32_t>* of(const std::string& pair) const
    {
        const auto found = m_ids.find(pair);
        return found == m_ids.end() ? nullptr : &found->second;
    }
    const std::vector<std::int32_t>& remember(const std::string& pair, std::vector<std::int32_t> ids)
    {
        if (m_ids.size() >= capacity)
            m_ids.clear();
        return m_ids[pair] = std::move(ids);
    }
    void forget(const std::string& pair) { m_ids.erase(pair); }
    void clear() { m_ids.clear(); }

private:
    std::unordered_map<std::string, std::vector<std::int32_t>> m_ids;
};
