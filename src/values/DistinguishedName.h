#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Distinguished names: pairs "class=instance" joined by ",", the first the top of the tree. A pair
/// in double quotes may hold commas; the quotes are not part of it. An unclosed quote takes the rest.

/// Splits a DN into its pairs, top first; an empty DN gives none.
std::vector<std::string> splitPairs(std::string_view dn);

/// A whole DN taken apart into the object's own pair and the DN of its parent ("" at the top). The
/// parent keeps the quotes its pairs had.
struct SplitDn {
    std::string parent;
    std::string pair;
};
SplitDn splitOwnPair(std::string_view wholeDn);

/// `parentDn` and `pair` joined by a comma; the pair alone when there is no parent.
std::string joinDn(std::string_view parentDn, std::string_view pair);

/// The pair as it stands inside a DN: in quotes when it holds a comma.
std::string quotedPair(std::string_view pair);
