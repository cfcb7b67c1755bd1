// The parts of the tree that a backup leaves out and a restore must not lose: the node's own software
// inventory and backup administration. They are merged into the database that lies ready for a restore.

#include "store/SQLite.h"

#include "persistence/SideDatabase.h"

#include "platform/middleware/Log.h"

#include <algorithm>

namespace {

constexpr const char* inventoryDn = "SwInventory=1";
constexpr const char* backupDn = "BrM=1";

/// Appends the object and gives its id, 0 when it is not stored.
std::int32_t fetchRoot(SQLite& store, const char* dn, SQLite::Objects& objects)
{
    auto root = store.sql_get_object(dn, 1, "Unknown client");
    if (!root)
        return 0;
    return objects.emplace_back(std::move(root))->id;
}

/// Both roots, then what is below them, parents before their children.
SQLite::Objects fetchFragments(SQLite& store, const char* operation)
{
    SQLite::Objects objects;
    const std::int32_t inventory = fetchRoot(store, inventoryDn, objects);
    const std::int32_t backup = fetchRoot(store, backupDn, objects);
    std::vector<std::int32_t> ids;
    const auto listBelow = [&](const char* dn, std::int32_t rootId) {
        constexpr bool skipStructs = false;
        if (rootId != 0)
            store.getAllChildIds(dn, 1, ids, skipStructs, rootId);
    };
    listBelow(backupDn, backup);
    listBelow(inventoryDn, inventory);
    for (const std::int32_t id : ids)
        if (auto object = store.sql_get_object(id, operation))
            objects.push_back(std::move(object));
    return objects;
}

/// Roots that stand directly below the base object in the backup database, because their parent is
/// not there: what is below them is to follow.
class ParentlessRoots {
public:
    /// To be called with each object that was inserted, and the DN it has in the tree.
    void note(const DBObject& inserted, const std::string& wholeDn)
    {
        if (inserted.parentId == 0 && !inserted.parentDn.empty())
            m_roots.push_back({wholeDn, inserted.parentDn.size() + 1});
    }

    /// Takes the missing parent out of the parent DN of an object below such a root.
    void follow(DBObject& object) const
    {
        const auto isAbove = [&](const Root& root) {
            return object.parentDn == root.wholeDn || object.parentDn.starts_with(root.wholeDn + ",");
        };
        if (const auto found = std::ranges::find_if(m_roots, isAbove); found != m_roots.end())
            object.parentDn.erase(0, found->missingLength);
    }

private:
    struct Root {
        std::string wholeDn;
        std::size_t missingLength; // of the missing parent's DN with its comma
    };
    std::vector<Root> m_roots;
};

/// Inserts the objects into the database swapped in; ends at the first that is refused.
bool insertAll(SQLite& store, const SQLite::Objects& objects, const std::string& file, const char* operation)
{
    LOG_DEBUG("SQLite::%s() Storing SwInventory and BrM fragments to %s", operation, file.c_str());
    ParentlessRoots parentless;
    for (const auto& object : objects) {
        const std::string wholeDn = object->fullDn();
        detach(*object);
        parentless.follow(*object);
        if (!store.sql_insert(object.get(), false, operation)) {
            LOG_ERROR("SQLite::%s, Failed to insert DBObject to %s", operation, file.c_str());
            return false;
        }
        parentless.note(*object, wholeDn);
    }
    return true;
}

bool storeFragments(SQLite& store, const SQLite::Objects& objects, const char* operation)
{
    LOG_DEBUG("SQLite::%s, getDb Name %s ", operation, store.databaseFile().c_str());
    if (!saveCurrentDatabase(store, operation))
        return false;
    const std::string file = store.getBrMBackupDbPath() + "/pRBSdb";
    SideDatabase backup(store, operation);
    if (!backup.open()) {
        LOG_DEBUG("SQLite::%s, Failed to load or create database %s.", operation, file.c_str());
        return false;
    }
    return backup.change(file, [&] { return insertAll(store, objects, file, operation); });
}

} // namespace

bool SQLite::storeBrMBackup()
{
    LOG_DEBUG("SQLite::%s() START", __func__);
    if (unavailable(__func__))
        return false;
    LOG_DEBUG("SQLite::%s() Fetching SwInventory and BrM fragments from database", __func__);
    const Objects objects = fetchFragments(*this, __func__);
    if (objects.empty()) {
        LOG_DEBUG("SQLite::%s() No SwInventory or BrM fragments found from database", __func__);
        return true;
    }
    if (!storeFragments(*this, objects, __func__)) {
        LOG_ERROR("SQLite::%s, Failed to store SwInventory and BrM fragments", __func__);
        return false;
    }
    LOG_INFO("SQLite::%s, SwInventory and BrM fragments successfully stored", __func__);
    return true;
}
