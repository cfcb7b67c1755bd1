// The list of synchronised attributes and its indexes. Patterns wait in an index of their own, by the
// part of the DN in front of the first %: a change of an object that is not below it, or whose DN does not
// look like the pattern, costs no look into the tree.

#include "store/AttributeSyncPairs.h"

#include "values/DistinguishedName.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace {

constexpr char wildcard = '%';

bool isPattern(std::string_view dn) { return dn.find(wildcard) != std::string_view::npos; }

/// Captured changes come without the quotes that a DN needs to be looked up.
std::string unquoted(std::string dn)
{
    std::erase(dn, '"');
    return dn;
}

std::string key(std::string_view dn, const std::string& attribute) { return attribute + '\n' + std::string(dn); }

/// The pairs in front of the first one with %.
std::string firmAncestor(const std::string& pattern)
{
    std::string dn;
    for (const std::string& pair : splitPairs(pattern)) {
        if (isPattern(pair))
            break;
        dn = joinDn(dn, pair);
    }
    return dn;
}

/// A pair with % is searched by the beginning of its text: anything may follow.
std::string shapeOf(const std::string& pattern)
{
    std::string shape;
    for (const std::string& pair : splitPairs(pattern))
        shape = joinDn(shape, isPattern(pair) ? pair + wildcard : pair);
    return shape;
}

bool sameLetter(char a, char b)
{
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

/// Whether % in the shape can be replaced by texts so that it becomes `text`; the case of letters counts
/// for nothing, as in the search.
bool fits(std::string_view text, std::string_view shape)
{
    std::size_t at = 0;
    std::size_t in = 0;
    std::size_t lastWildcard = std::string_view::npos;
    std::size_t resume = 0;
    while (at < text.size()) {
        if (in < shape.size() && shape[in] == wildcard) {
            lastWildcard = in++;
            resume = at;
        } else if (in < shape.size() && sameLetter(text[at], shape[in])) {
            ++at;
            ++in;
        } else if (lastWildcard != std::string_view::npos) {
            in = lastWildcard + 1;
            at = ++resume;
        } else {
            return false;
        }
    }
    return shape.find_first_not_of(wildcard, in) == std::string_view::npos;
}

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
        const Place place{index, side};
        if (isPattern(dn))
            m_waiting[key(firmAncestor(dn), attribute)].push_back({place, shapeOf(dn)});
        else
            m_exact[key(unquoted(dn), attribute)].push_back(place);
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
    std::erase_if(m_waiting[key(firmAncestor(pattern), attribute)],
                  [&](const Waiting& waiting) { return waiting.place == place; });
    auto& places = m_exact[key(unquoted(found), attribute)];
    places.insert(std::upper_bound(places.begin(), places.end(), place), place);
    return true;
}

/// The patterns that may stand for the object: they wait below one of its ancestors.
std::vector<AttributeSyncPairs::Place> AttributeSyncPairs::waitingFor(const std::string& dn,
                                                                      const std::string& attribute) const
{
    std::vector<Place> places;
    for (std::size_t end = 0; end != std::string::npos && !m_waiting.empty(); end = dn.find(',', end + 1)) {
        const auto found = m_waiting.find(key(std::string_view(dn).substr(0, end), attribute));
        if (found == m_waiting.end())
            continue;
        for (const Waiting& waiting : found->second)
            if (fits(dn, waiting.shape))
                places.push_back(waiting.place);
    }
    return places;
}

const AttributeSyncPair* AttributeSyncPairs::active(std::size_t index)
{
    const bool first = find({index, 0});
    const bool second = find({index, 1});
    return first && second ? &m_pairs[index] : nullptr;
}

const AttributeSyncPair::Side* AttributeSyncPairs::partnerOf(const std::string& dn, const std::string& attribute)
{
    const auto place = placeOfPartner(dn, attribute);
    return place ? &at(*place) : nullptr;
}

const AttributeSyncPair::Side* AttributeSyncPairs::successorOf(const std::string& dn, const std::string& attribute)
{
    const auto place = placeOfPartner(dn, attribute);
    return place && place->side == 1 ? &at(*place) : nullptr;
}

std::optional<AttributeSyncPairs::Place> AttributeSyncPairs::placeOfPartner(const std::string& quotedDn,
                                                                            const std::string& attribute)
{
    const std::string dn = unquoted(quotedDn);
    for (const Place place : waitingFor(dn, attribute))
        find(place); // one that is found moves to the exact ones
    const auto own = m_exact.find(key(dn, attribute));
    if (own == m_exact.end())
        return std::nullopt;
    for (const Place place : std::vector(own->second)) { // finding others may add to it
        const Place other{place.pair, 1 - place.side};
        if (find(other))
            return other;
    }
    return std::nullopt;
}
