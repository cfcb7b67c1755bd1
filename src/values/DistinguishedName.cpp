// Taking distinguished names apart and putting them together, quote-aware.

#include "values/DistinguishedName.h"

namespace {

/// One pair of a DN being walked: where its text lies, and where the next pair begins.
struct PairSpan {
    std::size_t begin;
    std::size_t end;
    std::size_t next; // npos after the last pair
};

PairSpan nextPair(std::string_view dn, std::size_t at)
{
    const bool quoted = dn[at] == '"';
    const std::size_t begin = quoted ? at + 1 : at;
    const std::size_t end = dn.find(quoted ? '"' : ',', begin);
    if (end == std::string_view::npos)
        return {begin, dn.size(), std::string_view::npos};
    std::size_t next = end + 1;
    if (next < dn.size() && dn[next] == ',')
        ++next; // the one behind a closing quote, or one too many
    return {begin, end, next < dn.size() ? next : std::string_view::npos};
}

} // namespace

std::vector<std::string> splitPairs(std::string_view dn)
{
    std::vector<std::string> pairs;
    for (std::size_t at = 0; at < dn.size();) {
        const PairSpan span = nextPair(dn, at);
        pairs.emplace_back(dn.substr(span.begin, span.end - span.begin));
        if (span.next == std::string_view::npos)
            break;
        at = span.next;
    }
    return pairs;
}

SplitDn splitOwnPair(std::string_view wholeDn)
{
    SplitDn split;
    for (std::size_t at = 0; at < wholeDn.size();) {
        const PairSpan span = nextPair(wholeDn, at);
        if (span.next == std::string_view::npos) {
            split.pair = wholeDn.substr(span.begin, span.end - span.begin);
            split.parent = wholeDn.substr(0, at > 0 && wholeDn[at - 1] == ',' ? at - 1 : at);
            break;
        }
        at = span.next;
    }
    return split;
}

std::string joinDn(std::string_view parentDn, std::string_view pair)
{
    std::string joined(parentDn);
    if (!joined.empty())
        joined += ',';
    return joined += pair;
}

std::string quotedPair(std::string_view pair)
{
    if (pair.find(',') == std::string_view::npos)
        return std::string(pair);
    std::string quoted(1, '"');
    return quoted.append(pair).append(1, '"');
}
