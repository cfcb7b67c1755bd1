// The list of synchronised attributes and its indexes. Patterns wait in an index of their own, by the
// class of the object sought: a change of an object of another class costs no look into the tree.

#include "store/AttributeSyncPairs.h"

#include "values/DistinguishedName.h"

#include <algorithm>
#include <utility>

namespace {

constexpr char wildcard = '%';
constexpr const char* anyClass = "%";

bool isPattern(const std::string& dn) { return dn.find(wildcard) != std::string::npos; }

std::string exactKey(const std::string& dn, const std::string& attribute) { return attribute + '\n' + dn; }

/// The class of the DN's own pair; "%" when it is not fixed.
std::string classOf(const std::string& dn)
{
    const std::string pair = splitOwnPair(dn).pair;
    const std::size_t end = pair.find('=');
    std::string moClass = pair.substr(0, end);
    return end == std::string::npos || isPattern(moClass) ? anyClass : moClass;
}

std::string patternKey(const std::string& moClass, const std::string& attribute) { return attribute + '\n' + moClass; }

} // namespace

void AttributeSyncPairs::append(AttributeSyncPair pair)
{
    const auto& [first, second] = pair.sides;
    if (!m_appended.insert({first.dn, first.attribute, second.dn, second.attribute}).second)
        return;
    const std::size_t index = m_pairs.size();
    m_pairs.push_back(std::move(pair));
    for (std::size_t side = 0; side < 2; ++side) {
        const auto& [dn, attribute] = m_pairs.back().sides[side];
        auto& places =
            isPattern(dn) ? m_patterns[patternKey(classOf(dn), attribute)] : m_exact[exactKey(dn, attribute)];
        places.push_back({index, side});
    }
}

/// Whether the side names an object, replacing a pattern by the object that it is found to stand for.
bool AttributeSyncPairs::find(Place place)
{
    const std::string pattern = at(place).dn;
    if (!isPattern(pattern))
        return true;
    std::uint64_t& inVain = m_inVain[pattern];
    if (inVain == m_look)
        return false;
    const std::string found = m_findObject(pattern);
    if (isPattern(found)) {
        inVain = m_look;
        return false;
    }
    at(place).dn = found;
    const std::string& attribute = at(place).attribute;
    std::erase(m_patterns[patternKey(classOf(pattern), attribute)], place);
    auto& places = m_exact[exactKey(found, attribute)];
    places.insert(std::ranges::upper_bound(places, place), place);
    return true;
}

const AttributeSyncPair* AttributeSyncPairs::active(std::size_t index)
{
    const bool first = find({index, 0});
    const bool second = find({index, 1});
    return first && second ? &m_pairs[index] : nullptr;
}

const AttributeSyncPair::Side* AttributeSyncPairs::partnerOf(const std::string& dn, const std::string& attribute)
{
    for (const std::string& moClass : {classOf(dn), std::string(anyClass)})
        if (const auto waiting = m_patterns.find(patternKey(moClass, attribute)); waiting != m_patterns.end())
            for (const Place place : std::vector(waiting->second)) // those found leave the index
                find(place);
    const auto own = m_exact.find(exactKey(dn, attribute));
    if (own == m_exact.end())
        return nullptr;
    for (const Place place : std::vector(own->second)) {
        const Place other{place.pair, 1 - place.side};
        if (find(other))
            return &at(other);
    }
    return nullptr;
}
