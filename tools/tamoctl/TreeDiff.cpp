// Compares by fingerprints, so that trees of any size fit: both are read once, their objects sorted by
// name, and only those that differ are read a second time, for the words.

#include "tools/tamoctl/TreeDiff.h"

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/Interruption.h"
#include "tools/tamoctl/TreeSource.h"
#include "tools/tamoctl/TreeWalk.h"
#include "values/DistinguishedName.h"

#include <algorithm>
#include <unordered_set>

namespace {

constexpr const char* usualRoot = "ManagedElement=1";

/// What counts in this comparison.
struct Rules {
    bool persistentOnly;
    bool parked;

    bool counts(const Attribute& attribute) const { return attribute.persistent || !persistentOnly; }
    /// Whether the object is there for its own sake, not for what stands below it.
    bool carries(const DBObject& object) const
    {
        const auto isPersistent = [](const auto& named) { return named.second.persistent; };
        return !persistentOnly || (parked && !object.alternateAttributes.empty()) ||
               std::any_of(object.attributes.begin(), object.attributes.end(), isPersistent);
    }
};

struct Entry {
    std::string dn;
    std::int32_t instance;
    bool carries;
    std::size_t fingerprint; ///< 64 bits: two contents alike by chance are next to impossible
    std::int64_t place;
};

using Entries = std::vector<Entry>;

bool entryLess(const Entry& left, const Entry& right)
{
    return left.dn != right.dn ? pairLess(left.dn, right.dn) : left.instance < right.instance;
}

bool sameFlagsAndType(const Attribute& a, const Attribute& b)
{
    return a.type == b.type && a.hidden == b.hidden && a.persistent == b.persistent && a.slot == b.slot;
}

bool same(const Attribute& a, const Attribute& b) { return sameFlagsAndType(a, b) && a.value == b.value; }

class Fingerprint {
public:
    template <class Part>
    void add(const Part& part)
    {
        constexpr std::size_t spread = 0x9E3779B97F4A7C15;
        m_state = (m_state ^ std::hash<Part>()(part)) * spread;
        m_state ^= m_state >> 29;
    }
    std::size_t value() const { return m_state; }

private:
    std::size_t m_state = 0;
};

void addAttribute(Fingerprint& print, const Attribute& attribute)
{
    print.add(attribute.name);
    print.add(attribute.value);
    print.add(attribute.type);
    print.add(attribute.slot);
    print.add((attribute.hidden ? 1 : 0) + (attribute.persistent ? 2 : 0));
}

std::size_t fingerprintOf(const DBObject& object, const Rules& rules)
{
    Fingerprint print;
    print.add((object.isMOMObject ? 1 : 0) + (object.system ? 2 : 0));
    for (const auto& [name, attribute] : object.attributes)
        if (rules.counts(attribute))
            addAttribute(print, attribute);
    if (rules.parked)
        for (const auto& [name, attribute] : object.alternateAttributes)
            addAttribute(print, attribute);
    return print.value();
}

using Names = std::unordered_set<std::string>;

/// Whether the object or one above it is named.
bool isAtOrBelow(std::string dn, const Names& names)
{
    while (!dn.empty() && !names.contains(dn))
        dn = splitOwnPair(dn).parent;
    return !dn.empty();
}

/// Leaves what does not stand below another of them.
std::vector<std::string> withoutNested(const std::vector<std::string>& roots)
{
    const Names names(roots.begin(), roots.end());
    std::vector<std::string> outer(names.begin(), names.end());
    std::erase_if(outer, [&names](const auto& root) { return isAtOrBelow(splitOwnPair(root).parent, names); });
    std::sort(outer.begin(), outer.end(), pairLess);
    return outer;
}

void stopIfInterrupted(const Interruption* interruption)
{
    if (interruption && interruption->came())
        throw Failure(ExitCode::interrupted, "interrupted");
}

Entries readEntries(TreeSource& source, const std::vector<std::string>& roots, const Rules& rules,
                    const Interruption* interruption)
{
    Entries entries;
    source.visit(roots, [&](const SourceObject& found) {
        stopIfInterrupted(interruption);
        entries.push_back({found.dn, found.object.MOInstance, rules.carries(found.object),
                           fingerprintOf(found.object, rules), found.place});
    });
    std::stable_sort(entries.begin(), entries.end(), entryLess);
    return entries;
}

/// The objects whose parents are not among them.
std::vector<std::string> topsOf(const Entries& entries)
{
    std::unordered_set<std::string_view> dns;
    for (const Entry& entry : entries)
        dns.insert(entry.dn);
    std::vector<std::string> tops;
    for (const Entry& entry : entries)
        if (const std::string parent = splitOwnPair(entry.dn).parent; !dns.contains(parent))
            tops.push_back(entry.dn);
    return tops;
}

/// Leaves the objects at and below the roots; all when there are none.
void keepWithin(Entries& entries, const std::vector<std::string>& roots)
{
    const Names names(roots.begin(), roots.end());
    if (!names.empty())
        std::erase_if(entries, [&names](const Entry& entry) { return !isAtOrBelow(entry.dn, names); });
}

/// Leaves the objects that carry something, and those above them.
void keepCarriers(Entries& entries)
{
    Names above;
    for (const Entry& entry : entries) {
        if (!entry.carries)
            continue;
        for (std::string dn = splitOwnPair(entry.dn).parent; !dn.empty() && above.insert(dn).second;)
            dn = splitOwnPair(dn).parent;
    }
    const Entry* before = nullptr; // children belong to the first instance of their parent's DN
    std::vector<bool> kept;
    kept.reserve(entries.size());
    for (const Entry& entry : entries) {
        const bool first = !before || before->dn != entry.dn;
        kept.push_back(entry.carries || (first && above.contains(entry.dn)));
        before = &entry;
    }
    std::size_t index = 0;
    std::erase_if(entries, [&](const Entry&) { return !kept[index++]; });
}

std::vector<AttributeDifference> differences(const DBObject::Attributes& a, const DBObject::Attributes& b,
                                             const std::function<bool(const Attribute&)>& counts)
{
    std::vector<AttributeDifference> found;
    const auto in = [&counts](const DBObject::Attributes& attributes, const std::string& name) -> const Attribute* {
        const auto at = attributes.find(name);
        return at != attributes.end() && counts(at->second) ? &at->second : nullptr;
    };
    for (const auto& [name, attribute] : a) {
        const Attribute* const left = in(a, name);
        const Attribute* const right = in(b, name);
        if ((left || right) && !(left && right && same(*left, *right)))
            found.push_back({left, right});
    }
    for (const auto& [name, attribute] : b)
        if (!a.contains(name) && counts(attribute))
            found.push_back({nullptr, &attribute});
    return found;
}

struct Side {
    TreeSource& source;
    Entries entries = {};
};

/// Both trees read, limited to what both can speak of, and walked side by side.
class Comparison {
public:
    Comparison(TreeSource& a, TreeSource& b, const DiffOptions& options)
        : m_a{a},
          m_b{b},
          m_interruption(options.interruption),
          m_rules{options.persistentOnly, a.knowsParked() && b.knowsParked()}
    {
        m_summary.parkedCompared = m_rules.parked;
        readBoth(options.below);
        for (Side* side : {&m_a, &m_b}) {
            keepWithin(side->entries, m_summary.below);
            if (m_rules.persistentOnly)
                keepCarriers(side->entries);
        }
        m_summary.objectsA = m_a.entries.size();
        m_summary.objectsB = m_b.entries.size();
    }

    DiffSummary run(const std::function<void(const ObjectDifference&)>& tell)
    {
        auto a = m_a.entries.begin();
        auto b = m_b.entries.begin();
        const auto endA = m_a.entries.end();
        const auto endB = m_b.entries.end();
        while (a != endA || b != endB) {
            stopIfInterrupted(m_interruption);
            if (b == endB || (a != endA && entryLess(*a, *b))) {
                ++m_summary.onlyA;
                tell({a->dn, a->instance, Where::onlyA});
                ++a;
            } else if (a == endA || entryLess(*b, *a)) {
                ++m_summary.onlyB;
                tell({b->dn, b->instance, Where::onlyB});
                ++b;
            } else {
                compare(*a++, *b++, tell);
            }
        }
        return m_summary;
    }

private:
    /// Trees that know their roots first: they tell the others where to look.
    void readBoth(const std::vector<std::string>& below)
    {
        std::vector<std::string> roots = below;
        std::vector<std::string> limits = below;
        for (Side* side : {&m_a, &m_b})
            if (side->source.knowsRoots()) {
                side->entries = readEntries(side->source, roots, m_rules, m_interruption);
                if (below.empty())
                    addRoots(*side, roots, limits);
            }
        roots = roots.empty() ? std::vector<std::string>{usualRoot} : withoutNested(roots);
        for (Side* side : {&m_a, &m_b})
            if (!side->source.knowsRoots()) {
                side->entries = readEntries(side->source, roots, m_rules, m_interruption);
                if (limits.empty())
                    limits = roots;
            }
        m_summary.below = withoutNested(limits);
    }

    /// An export limits the comparison to itself; a whole tree has the usual root, though it may lack it.
    static void addRoots(const Side& side, std::vector<std::string>& roots, std::vector<std::string>& limits)
    {
        const std::vector<std::string> tops = topsOf(side.entries);
        roots.insert(roots.end(), tops.begin(), tops.end());
        if (side.source.isWhole())
            roots.emplace_back(usualRoot);
        else
            limits.insert(limits.end(), tops.begin(), tops.end());
    }

    void compare(const Entry& a, const Entry& b, const std::function<void(const ObjectDifference&)>& tell)
    {
        if (a.fingerprint == b.fingerprint)
            return;
        const auto objectA = m_a.source.again(a.dn, a.instance, a.place);
        const auto objectB = m_b.source.again(b.dn, b.instance, b.place);
        ObjectDifference difference{a.dn, a.instance, Where::both, objectA.get(), objectB.get()};
        if (objectA && objectB) {
            difference.attributes = differences(objectA->attributes, objectB->attributes,
                                                [this](const Attribute& one) { return m_rules.counts(one); });
            if (m_rules.parked)
                difference.parked = differences(objectA->alternateAttributes, objectB->alternateAttributes,
                                                [](const Attribute&) { return true; });
        }
        ++m_summary.changed;
        tell(difference);
    }

    Side m_a;
    Side m_b;
    const Interruption* const m_interruption;
    const Rules m_rules;
    DiffSummary m_summary;
};

} // namespace

DiffSummary diffTrees(TreeSource& a, TreeSource& b, const DiffOptions& options,
                      const std::function<void(const ObjectDifference&)>& tell)
{
    return Comparison(a, b, options).run(tell);
}
