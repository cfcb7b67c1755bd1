#pragma once

#include "values/Value.h"

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

/// What happened to a row; the numbers are those of SQLite's update hook.
enum ChangeOperation : std::int32_t { changeDelete = 9, changeInsert = 18, changeUpdate = 23 };

/// Where a changed attribute is kept.
enum StorageKind : std::int32_t {
    storageLive = 0,
    storageAlternate = 1,
    storageLoading = 2, ///< anywhere, while alternate storage is loaded
};

/// One change that subscribers are to be told of: of an object, or of one of its attributes.
struct NotificationItem {
    std::string dn;      ///< the object's own pair
    std::string wholeDn; ///< empty for a captured object directly under the base object
    std::int32_t MOInstance = 0;
    std::int32_t operation = 0; ///< a ChangeOperation
    bool isMOMObject = false;
    std::string attribute; ///< empty for an item of the object itself
    Value value;
    std::int32_t valueType = 0;
    std::int32_t storageKind = storageLive;
    bool hidden = false;
    bool implied = false; ///< of an owner, for a change of its struct's member: it may be older than the item

    /// The DN that the object really has.
    const std::string& realDn() const { return wholeDn.empty() ? dn : wholeDn; }
    bool ofObject() const { return attribute.empty(); }
    bool operator==(const NotificationItem&) const = default;
};

/// The changes of one delivery in the order in which they were captured. Objects are the same when
/// real DN and MOInstance are. A look-up takes the time of the items that the object itself has, however
/// many the others have.
class NotificationList {
public:
    void append(NotificationItem item);

    std::size_t size() const { return m_items.size(); }
    const NotificationItem* last() const { return m_items.empty() ? nullptr : &m_items.back(); }
    void clear();
    /// Forgets everything behind the first `size` items.
    void cutBack(std::size_t size);

    /// Removes the first item of the object itself that tells this operation, so that a row changed
    /// twice is told once, at its last position. `sought` need not be complete: DNs, MOInstance and
    /// operation count.
    void EraseDuplicate(const NotificationItem& sought);

    /// The latest item of the object itself; null when there is none.
    const NotificationItem* latestOfObject(const NotificationItem& object) const;

    /// Whether an item equals this attribute item in everything.
    bool contains(const NotificationItem& item);
    /// The latest item of that attribute of an object with that own pair; null when there is none.
    NotificationItem* latestOf(const std::string& dn, const std::string& attribute);

    /// Empties the list into what is to be delivered: object by object in the order of their DNs,
    /// each attribute once, with what its changes come to. An object that was deleted and made again
    /// is told as both; what came and went is not told at all.
    std::vector<NotificationItem> takeCompacted();

private:
    using Position = std::list<NotificationItem>::iterator;

    void index(Position item);
    void indexAttributes();
    void forgetIndexes();

    std::list<NotificationItem> m_items;
    std::unordered_map<std::string, std::vector<Position>> m_objectItems; ///< by real DN and MOInstance
    bool m_attributesIndexed = false; ///< from the first question about one on: most deliveries ask none
    std::unordered_map<std::string, std::vector<Position>> m_attributeItems; ///< by content
    std::unordered_map<std::string, Position> m_latestAttribute;             ///< by own pair and name
};
