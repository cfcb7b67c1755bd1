#pragma once

#include "values/AttributeSyncPair.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

/// The list of synchronised attributes, in the order of the mapping file. A DN with % stands for the
/// first object that matches it, from the moment when one is found. What a look-up costs does not grow
/// with pairs of other objects or attributes, and the tree is asked only about patterns that the DN fits.
class AttributeSyncPairs {
public:
    /// The whole DN of the first stored object that matches a DN with %; the argument when none does.
    using FindObject = std::function<std::string(const std::string& pattern)>;

    explicit AttributeSyncPairs(FindObject findObject) : m_findObject(std::move(findObject)) {}

    /// A pair that was appended before is not appended again.
    void append(AttributeSyncPair pair);
    std::size_t size() const { return m_pairs.size(); }

    /// The pair, with both objects found; null while one of them is not there.
    const AttributeSyncPair* active(std::size_t index);

    /// The other side of the first active pair that the attribute belongs to; null when there is none. The
    /// quotes of pairs with commas make no difference.
    const AttributeSyncPair::Side* partnerOf(const std::string& dn, const std::string& attribute);
    /// The same, when that is the second side.
    const AttributeSyncPair::Side* successorOf(const std::string& dn, const std::string& attribute);

    /// Objects may have come: those that were looked for in vain are looked for again.
    void lookAgain() { ++m_look; }

private:
    /// A side: its pair's place in the list and which of the two it is.
    struct Place {
        std::size_t pair;
        std::size_t side;
        bool operator==(const Place&) const = default;
        bool operator<(const Place& other) const { return pair != other.pair ? pair < other.pair : side < other.side; }
    };
    /// A side with % and what the texts of the DNs that it may stand for look like.
    struct Waiting {
        Place place;
        std::string shape;
    };

    std::optional<Place> placeOfPartner(const std::string& dn, const std::string& attribute);
    std::vector<Place> waitingFor(const std::string& dn, const std::string& attribute) const;
    bool find(Place place);
    AttributeSyncPair::Side& at(Place place) { return m_pairs[place.pair].sides[place.side]; }

    FindObject m_findObject;
    std::vector<AttributeSyncPair> m_pairs;
    std::set<std::vector<std::string>> m_appended;                   ///< as they were before % was replaced
    std::unordered_map<std::string, std::vector<Place>> m_exact;     ///< sides without %, by attribute and DN
    std::unordered_map<std::string, std::vector<Waiting>> m_waiting; ///< the others, by attribute and firm ancestor
    /// When a pattern was last looked for in vain.
    std::unordered_map<std::string, std::uint64_t> m_inVain;
    std::uint64_t m_look = 1;
};
