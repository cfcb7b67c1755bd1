// Removing an object with everything below it, or one attribute. What something outside still
// refers to stays.

#include "store/SQLite.h"

#include "store/OwnTransaction.h"
#include "store/ReservedBy.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "platform/utility/Toolbox.h"

#include <sqlite3.h>

bool SQLite::delete_object(const std::string& dn, std::int32_t MOInstance, bool inTransaction,
                           const std::string& client)
{
    LOG_DEBUG("SQLite::%s, Deleting object '%s' from database by %s", __func__, dn.c_str(), client.c_str());
    if (unavailable(__func__))
        return false;
    const std::int32_t id = get_object_id(dn, MOInstance);
    if (id == 0) {
        LOG_DEBUG("SQLite::%s, Cannot delete '%s', it does not exist in database", __func__, dn.c_str());
        return false;
    }
    std::vector<std::int32_t> ids;
    constexpr bool skipStructs = true;
    getAllChildIds(dn, MOInstance, ids, skipStructs, id);
    std::vector<std::string> below;
    below.reserve(ids.size());
    for (const std::int32_t child : ids)
        below.push_back(get_whole_dn(child));
    const std::unordered_set<std::string> deletedDns(below.begin(), below.end());
    const Referrers& referrers = currentReferrers();
    for (const std::string& child : below)
        if (blocksDeletion(referrers, child, deletedDns)) {
            LOG_DEBUG("SQLite::%s, Reference to a child(%s) of %s exists.. cannot delete", __func__, child.c_str(),
                      dn.c_str());
            return false;
        }
    if (blocksDeletion(referrers, get_whole_dn(id), deletedDns)) {
        LOG_DEBUG("SQLite::%s, Reference to %s exist.. cannot delete", __func__, dn.c_str());
        return false;
    }
    ids.push_back(id);
    for (const std::int32_t each : ids)
        removeReference(each, inTransaction);
    OwnTransaction transaction(*this, inTransaction);
    if (!transaction)
        return false;
    if (transaction.isOwn())
        LOG_DEBUG("SQLite::%s, Single delete", __func__);
    const std::size_t changesBefore = activeList().size();
    for (const std::int32_t each : ids)
        captureDeletion(each);
    const std::size_t rowsBefore = m_changedRows.size();
    const int result = deleteRows(id);
    // The deletions are captured; a row id that is used again must not tell the new object's.
    m_changedRows.resize(rowsBefore);
    forgetLookups();
    if (result != SQLITE_DONE) {
        activeList().cutBack(changesBefore);
        LOG_ERROR("SQLite::%s, Error while deleting object '%s' by %s! SQLite error: %d", __func__, dn.c_str(),
                  client.c_str(), result);
        transaction.abandon();
        doIntegrityCheck();
        return false;
    }
    if (transaction.isOwn()) // a joined delete leaves the collecting to its caller
        transaction.finish();
    LOG_DEBUG("SQLite::%s, Object '%s' deleted from database by %s", __func__, dn.c_str(), client.c_str());
    return true;
}

/// Deletes the row, and with it what hangs below; SQLITE_DONE on success, else nothing is deleted.
int SQLite::deleteRows(std::int32_t objectId)
{
    const auto run = [this](const char* sql) { Statement(m_runtime, sql).step(); };
    run("SAVEPOINT subtree");
    int result = Statement(m_runtime, "delete from DBObject where id = %d", objectId).step();
    if (result == SQLITE_ERROR) {
        // After 1,000 levels of cascades SQLite gives up, and leaves the rows below without parents.
        run("ROLLBACK TO subtree");
        result = deleteDeepestFirst(objectId);
    }
    if (result != SQLITE_DONE)
        run("ROLLBACK TO subtree");
    run("RELEASE subtree");
    return result;
}

int SQLite::deleteDeepestFirst(std::int32_t objectId)
{
    std::vector<std::int32_t> ids;
    constexpr bool everything = false;
    getAllChildIds({}, 1, ids, everything, objectId); // parents before children
    ids.insert(ids.begin(), objectId);
    int result = SQLITE_DONE;
    for (auto id = ids.rbegin(); id != ids.rend() && result == SQLITE_DONE; ++id) {
        Statement remove(m_runtime, "delete from DBObject where id = %d", *id);
        result = remove.step();
    }
    return result;
}

/// Who refers to whom now. Inside a transaction the attributes are looked through for the first
/// deletion only, so that a commit of many does not grow with the square.
const SQLite::Referrers& SQLite::currentReferrers()
{
    if (!m_transactionOpen)
        forgetReferrers();
    if (!m_referrers) {
        Referrers read;
        if (!readReferrers(read)) {
            static const Referrers nobody;
            return nobody;
        }
        m_referrers = std::move(read);
    }
    return *m_referrers;
}

void SQLite::forgetReferrers()
{
    m_referrers.reset();
    m_goneHolders.clear();
}

/// Everybody whom a reference attribute names; false, dealt with, when they could not be read. The
/// values are taken apart once, however many objects are to be deleted.
bool SQLite::readReferrers(Referrers& referrers)
{
    const char* const operation = "checkReference";
    Statement read(
        m_runtime,
        "select value, belongsTo from Attribute where name is not %Q and (value_type = 11 or value_type = 31)",
        reservedBy);
    while (read.next()) {
        if (read.isNull(0)) {
            LOG_DEBUG("SQLite::%s: sqlite3_column_text returned NULL! ", operation);
            continue;
        }
        const std::string value(read.text(0));
        LOG_DEBUG("SQLite::%s: Fetched reference '%s' ", operation, value.c_str());
        if (value.empty())
            continue;
        std::vector<std::string> named;
        if (!Toolbox::readStringToList(value, ';', named, true))
            LOG_ERROR("SQLite::%s cannot parse readStringToList ", operation);
        for (std::string& dn : named)
            referrers[std::move(dn)].push_back(read.integer(1));
    }
    if (read.done())
        return true;
    LOG_ERROR("SQLite::%s: Error while checking references. Sqlite error: %d", operation, read.result());
    doIntegrityCheck();
    return false;
}

bool SQLite::checkReference(const std::string& wholeDn, const std::vector<std::string>& deletedDns)
{
    Referrers referrers;
    return m_runtime && readReferrers(referrers) &&
           blocksDeletion(referrers, wholeDn, {deletedDns.begin(), deletedDns.end()});
}

bool SQLite::blocksDeletion(const Referrers& referrers, const std::string& wholeDn,
                            const std::unordered_set<std::string>& deletedDns)
{
    const char* const operation = "checkReference";
    LOG_DEBUG("SQLite::%s, Check if reference %s exist", operation, wholeDn.c_str());
    const auto found = referrers.find(wholeDn);
    if (found == referrers.end())
        return false;
    for (const std::int32_t holder : found->second) {
        if (m_goneHolders.contains(holder))
            continue;
        LOG_INFO("SQLite::%s: reference to the dn '%s' found, check if referense will be deleted also", operation,
                 wholeDn.c_str());
        if (!deletedDns.empty()) {
            const std::string holderDn = get_whole_dn(holder);
            LOG_INFO("SQLite::%s: parent dn '%s'", operation, holderDn.c_str());
            if (deletedDns.contains(holderDn)) {
                LOG_INFO("SQLite::%s: parent dn '%s' found from deleted object list", operation, holderDn.c_str());
                continue;
            }
        }
        LOG_INFO("SQLite::%s: reference to the dn '%s' found from the database, CANNOT DELETE", operation,
                 wholeDn.c_str());
        return true;
    }
    return false;
}

bool SQLite::deleteAttribute(const std::string& name, std::int32_t objectId, bool inTransaction)
{
    if (unavailable(__func__))
        return false;
    LOG_DEBUG("SQLite::%s: Deleting attribute %s from database", __func__, name.c_str());
    OwnTransaction transaction(*this, inTransaction);
    if (!transaction)
        return false;
    if (transaction.isOwn())
        LOG_DEBUG("Single attr delete");
    if (!checkAttributeExistence(name, objectId)) {
        LOG_DEBUG("SQLite::%s: Cannot delete attribute %s from DB, it does not exist.", __func__, name.c_str());
        return false;
    }
    sql_collectDnInstPairs(); // so that the object's own item stands before its attribute's
    const std::size_t changesBefore = activeList().size();
    captureAttributeDeletion(objectId, name);
    forgetReferrers();
    const std::size_t rowsBefore = m_changedRows.size();
    Statement remove(m_runtime, "delete from Attribute where belongsTo = %d and name = %Q", objectId, name.c_str());
    remove.step();
    m_changedRows.resize(rowsBefore); // captured already
    if (!remove.done()) {
        activeList().cutBack(changesBefore);
        LOG_ERROR("SQLite::%s: Error deleting attribute %s from DB", __func__, name.c_str());
        doIntegrityCheck();
        return false;
    }
    transaction.finish();
    LOG_DEBUG("SQLite::%s: Attribute %s deleted successfully from database", __func__, name.c_str());
    return true;
}
