#pragma once

#include <cstddef>
#include <utility>
#include <vector>

/// Appends to a list of the node's record. The oldest make room: a service gone wild must not fill the disk.
template <class Entry>
void keep(std::vector<Entry>& entries, Entry entry)
{
    constexpr std::size_t mostEvents = 1000;
    if (entries.size() >= mostEvents)
        entries.erase(entries.begin());
    entries.push_back(std::move(entry));
}
