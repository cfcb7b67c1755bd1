// The walk over the captured changes after a commit: object by object and item by item to the sink,
// and what the store itself follows. SQLite_Capture.cpp filled the lists.

#include "store/SQLite.h"

#include "store/ChangeSink.h"

#include "platform/middleware/Log.h"

#include <exception>
#include <optional>
#include <span>
#include <unordered_set>

namespace {

bool sameObject(const NotificationItem& a, const NotificationItem& b)
{
    return a.realDn() == b.realDn() && a.MOInstance == b.MOInstance;
}

/// Every changed attribute, as DN and name.
std::unordered_set<std::string> attributesOf(const std::vector<NotificationItem>& items)
{
    std::unordered_set<std::string> changed;
    for (const NotificationItem& item : items)
        if (!item.ofObject())
            changed.insert(item.realDn() + '\n' + item.attribute);
    return changed;
}

/// A change that cannot be delivered must not cost the others their delivery.
template <class Work>
void guarded(const NotificationItem& item, Work work)
{
    try {
        work();
    } catch (const std::exception& error) {
        LOG_ERROR("SQLite::sql_sendNotifications(), a change of %s was not delivered: %s", item.realDn().c_str(),
                  error.what());
    }
}

} // namespace

void SQLite::sql_sendNotifications()
{
    if (unavailable(__func__) || !onOwnRuntime())
        return;
    m_changedRows.clear();
    m_ownerKnown = true;
    try {
        // Each list is taken before its first item is told: whoever is told may write.
        m_syncPairs.lookAgain();
        walk(m_changes.takeCompacted(), Origin::client);
        walk(m_synchronised.takeCompacted(), Origin::synchronisation);
    } catch (const std::exception& error) {
        LOG_ERROR("SQLite::%s(), changes were not delivered: %s", __func__, error.what());
    }
    m_syncPairs.lookAgain(); // what was mirrored may have made objects
}

void SQLite::walk(const std::vector<NotificationItem>& items, Origin origin)
{
    const std::span all(items);
    std::optional<std::unordered_set<std::string>> changed; // most deliveries never ask
    const IsChanged isChanged = [&](const std::string& dn, const std::string& attribute) {
        if (!changed)
            changed = attributesOf(items);
        return changed->contains(dn + '\n' + attribute);
    };
    std::size_t begin = 0;      // of the object's group
    std::int32_t operation = 0; // of the last object item walked
    for (std::size_t i = 0; i < items.size(); ++i) {
        const NotificationItem& item = items[i];
        const bool next = i > begin && (!sameObject(items[i - 1], item) ||
                                        (item.ofObject() && operation != 0 && item.operation != operation));
        if (next) {
            announceObject(all.subspan(begin, i - begin), operation);
            begin = i;
        }
        if (item.ofObject())
            operation = item.operation;
        if (m_sink)
            guarded(item, [&] { m_sink->itemChanged(item); });
        if (origin == Origin::client && m_attributeSynchronisationEnabled && !item.ofObject())
            guarded(item, [&] { synchronise(item, isChanged); });
        followFeatureState(item);
    }
    if (!items.empty())
        announceObject(all.subspan(begin), operation);
}

void SQLite::announceObject(std::span<const NotificationItem> group, std::int32_t operation)
{
    const bool hasAttributes = group.size() > 1 || !group.front().ofObject();
    if (m_sink && operation != 0 && hasAttributes)
        guarded(group.back(), [&] { m_sink->objectChanged(group, operation); });
}

/// What this changes is told after the list being walked, and not mirrored again.
void SQLite::synchronise(const NotificationItem& item, const IsChanged& isChanged)
{
    if (yieldsToSuccessor(item.realDn(), item.attribute, isChanged))
        return;
    if (!SyncAttribute(item.realDn(), item.attribute, item.value, item.operation))
        LOG_ERROR("SQLite::sql_sendNotifications(), Failed to syncronize deprecated attribute!");
}

/// The attribute that switches the dump file on and off.
void SQLite::followFeatureState(const NotificationItem& item)
{
    if (item.attribute != "databaseDumpEnabled" || item.dn != "FeatureState")
        return;
    if (const bool* const enabled = std::get_if<bool>(&item.value))
        m_databaseDumpEnabled = *enabled;
    else
        LOG_ERROR("SQLite::sql_sendNotifications(), databaseDumpEnabled of FeatureState is no boolean and is ignored");
}
