// The list of captured changes: what makes it linear in its length, and the compaction before a
// delivery. SQLite_Capture.cpp fills it, SQLite_Notify.cpp empties it.

#include "store/NotificationList.h"

#include "platform/middleware/Log.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <unordered_set>

namespace {

using Items = std::vector<NotificationItem*>;

std::string joined(std::string_view first, std::string_view second)
{
    std::string key;
    key.reserve(first.size() + second.size() + 1);
    return key.append(first).append(1, '\0').append(second);
}

std::string objectKey(const NotificationItem& item) { return joined(item.realDn(), std::to_string(item.MOInstance)); }

std::string attributeKey(const std::string& dn, const std::string& attribute) { return joined(dn, attribute); }

/// Equal items have equal keys, and others hardly ever.
std::string itemKey(const NotificationItem& item)
{
    return joined(joined(objectKey(item), item.attribute), std::to_string(item.operation) + valueText(item.value));
}

auto objectOrder(const NotificationItem& item) { return std::tie(item.realDn(), item.MOInstance); }

/// What a first and a last operation come to; none when there is nothing to tell.
std::optional<std::int32_t> folded(std::int32_t first, std::int32_t last)
{
    if (last == changeDelete)
        return first == changeInsert ? std::nullopt : std::optional<std::int32_t>(changeDelete);
    return first == changeInsert ? changeInsert : changeUpdate;
}

/// Folds the items of one attribute, or those of the object itself, into one; none when nothing is left.
std::optional<NotificationItem> foldRun(std::span<NotificationItem*> run)
{
    // What a member's change implies of its owner does not say that the owner was made just now.
    const std::int32_t last = run.back()->operation;
    const bool older = run.front()->implied && last == changeDelete;
    const std::int32_t first = older ? changeUpdate : run.front()->operation;
    const auto operation = folded(first, last);
    if (!operation)
        return std::nullopt;
    const bool bothDeleted = first == changeDelete && *operation == changeDelete;
    NotificationItem item = std::move(bothDeleted ? *run.front() : *run.back());
    item.operation = *operation;
    return item;
}

/// One life of an object: its items by attribute, the object's own first. Empty when the object
/// came and went.
std::vector<NotificationItem> foldSegment(Items segment)
{
    std::vector<NotificationItem> result;
    if (segment.size() == 1) {
        result.push_back(std::move(*segment.front()));
        return result;
    }
    std::ranges::stable_sort(
        segment, {}, [](const NotificationItem* item) -> auto& { return item->attribute; });
    for (std::size_t begin = 0; begin < segment.size();) {
        std::size_t end = begin + 1;
        while (end < segment.size() && segment[end]->attribute == segment[begin]->attribute)
            ++end;
        const bool ofObject = segment[begin]->ofObject();
        if (auto item = foldRun(std::span(segment).subspan(begin, end - begin)))
            result.push_back(std::move(*item));
        else if (ofObject)
            return {};
        begin = end;
    }
    return result;
}

/// Where the second life of an object begins: with the first item of itself after its deletion. An
/// attribute's deletion may stand first, when the object's own item was moved behind it.
std::size_t secondLife(const Items& items)
{
    std::int32_t lastOperation = 0;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!items[i]->ofObject())
            continue;
        if (lastOperation == changeDelete)
            return i;
        lastOperation = items[i]->operation;
    }
    return items.size();
}

/// Brings the items of one object after the other into what is to be delivered.
class Compaction {
public:
    explicit Compaction(std::size_t expected) { m_result.reserve(expected); }

    void add(const Items& items)
    {
        const NotificationItem& any = *items.front();
        const std::string dn = any.realDn(); // the items are moved from below
        const Owner owner = ownerOf(any, dn);
        if (owner == Owner::vanished) {
            m_vanished.insert(dn); // for the members of this member
            return;
        }
        const auto border = items.begin() + static_cast<std::ptrdiff_t>(secondLife(items));
        auto last = foldSegment({items.begin(), border});
        if (border != items.end()) {
            append(last, owner);
            last = foldSegment({border, items.end()});
        }
        if (last.empty())
            m_vanished.insert(dn);
        else if (owner == Owner::deleted || last.front().operation == changeDelete)
            m_deleted.insert(dn);
        if (!last.empty() && (border == items.end() || last.front().operation != changeDelete))
            append(last, owner);
    }

    std::vector<NotificationItem> take() { return std::move(m_result); }

private:
    enum class Owner { stands, deleted, vanished };

    /// What became of the owner of a struct's member; other objects have none.
    Owner ownerOf(const NotificationItem& item, const std::string& dn) const
    {
        if (item.isMOMObject || item.dn.find(':') == std::string::npos || (m_vanished.empty() && m_deleted.empty()))
            return Owner::stands;
        const std::string owner = splitOwnPair(dn).parent;
        return m_vanished.contains(owner)  ? Owner::vanished
               : m_deleted.contains(owner) ? Owner::deleted
                                           : Owner::stands;
    }

    /// Members go with their owner and no row tells of it; but what was said of them before is not true.
    void append(std::vector<NotificationItem>& items, Owner owner)
    {
        if (owner == Owner::deleted && !items.empty() && items.front().operation != changeDelete)
            return;
        m_result.insert(m_result.end(), std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
    }

    std::vector<NotificationItem> m_result;
    std::unordered_set<std::string> m_vanished; ///< real DNs of objects that came and went,
    std::unordered_set<std::string> m_deleted;  ///< and of those that are gone now
};

} // namespace

void NotificationList::append(NotificationItem item)
{
    m_items.push_back(std::move(item));
    index(std::prev(m_items.end()));
}

void NotificationList::index(Position item)
{
    if (item->ofObject()) {
        m_objectItems[objectKey(*item)].push_back(item);
    } else if (m_attributesIndexed) {
        m_attributeItems[itemKey(*item)].push_back(item);
        m_latestAttribute[attributeKey(item->dn, item->attribute)] = item;
    }
}

void NotificationList::indexAttributes()
{
    if (m_attributesIndexed)
        return;
    m_attributesIndexed = true;
    for (auto item = m_items.begin(); item != m_items.end(); ++item)
        if (!item->ofObject())
            index(item);
}

void NotificationList::clear()
{
    m_items.clear();
    forgetIndexes();
}

void NotificationList::forgetIndexes()
{
    // Not clear(): that goes over all buckets, and they stay as many as the largest commit needed.
    decltype(m_objectItems)().swap(m_objectItems);
    decltype(m_attributeItems)().swap(m_attributeItems);
    decltype(m_latestAttribute)().swap(m_latestAttribute);
    m_attributesIndexed = false;
}

void NotificationList::cutBack(std::size_t size)
{
    if (size >= m_items.size())
        return;
    m_items.resize(size);
    forgetIndexes();
    for (auto item = m_items.begin(); item != m_items.end(); ++item)
        index(item);
}

void NotificationList::EraseDuplicate(const NotificationItem& sought)
{
    const auto found = m_objectItems.find(objectKey(sought));
    if (found == m_objectItems.end())
        return;
    std::vector<Position>& items = found->second;
    const auto same = std::ranges::find_if(items, [&](Position item) { return item->operation == sought.operation; });
    if (same == items.end())
        return;
    LOG_DEBUG("NotificationList::EraseDuplicate: erased from dninstList: dn: %s, instance: %d, operation: %d",
              sought.dn.c_str(), sought.MOInstance, sought.operation);
    m_items.erase(*same);
    items.erase(same);
}

const NotificationItem* NotificationList::latestOfObject(const NotificationItem& object) const
{
    const auto found = m_objectItems.find(objectKey(object));
    return found == m_objectItems.end() || found->second.empty() ? nullptr : &*found->second.back();
}

bool NotificationList::contains(const NotificationItem& item)
{
    indexAttributes();
    const auto found = m_attributeItems.find(itemKey(item));
    return found != m_attributeItems.end() &&
           std::ranges::any_of(found->second, [&](Position other) { return *other == item; });
}

NotificationItem* NotificationList::latestOf(const std::string& dn, const std::string& attribute)
{
    indexAttributes();
    const auto found = m_latestAttribute.find(attributeKey(dn, attribute));
    return found == m_latestAttribute.end() ? nullptr : &*found->second;
}

std::vector<NotificationItem> NotificationList::takeCompacted()
{
    std::list<NotificationItem> all;
    all.swap(m_items);
    forgetIndexes();
    all.sort([](const NotificationItem& a, const NotificationItem& b) { return objectOrder(a) < objectOrder(b); });
    Compaction compaction(all.size());
    Items ofOneObject;
    for (NotificationItem& item : all) {
        if (!ofOneObject.empty() && objectOrder(*ofOneObject.front()) != objectOrder(item)) {
            compaction.add(ofOneObject);
            ofOneObject.clear();
        }
        ofOneObject.push_back(&item);
    }
    if (!ofOneObject.empty())
        compaction.add(ofOneObject);
    return compaction.take();
}
