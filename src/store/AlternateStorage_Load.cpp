// Loading a slot: the values parked in it become the live ones, in one transaction. The counterpart of
// the parking in AlternateStorage.cpp.

#include "store/AlternateStorage.h"

#include "store/Connection.h"
#include "store/OwnTransaction.h"
#include "store/SQLite.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"

#include <sqlite3.h>

namespace {

enum Column { belongsTo = 1, name, value, valueType, hidden, persistent };

/// Columns without which a row cannot be moved.
constexpr int neededColumns = persistent + 1;

/// Binds a parked value to ?1: as SQLite's text of it, like every value that came out of a slot before.
/// A real number of which the text, with its 15 digits, would make another one stays a number; NULL
/// stays unbound.
void bindParked(Connection& connection, const Statement& live, const Statement& row)
{
    const int stored = sqlite3_column_type(row.handle(), value);
    if (stored == SQLITE_NULL)
        return;
    if (stored == SQLITE_FLOAT) {
        Statement exact(&connection, "SELECT CAST(CAST(?1 AS TEXT) AS REAL) = ?1");
        sqlite3_bind_double(exact.handle(), 1, row.real(value));
        if (!exact.next() || exact.integer(0) == 0) {
            sqlite3_bind_double(live.handle(), 1, row.real(value));
            return;
        }
    }
    const std::string_view text = row.text(value); // its length counts: a text may hold zero bytes
    sqlite3_bind_text(live.handle(), 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

} // namespace

bool AlternateStorage::loadAlternateStorage(std::int32_t slot)
{
    LOG_DEBUG("AlternateStorage::%s: Loading slot %d", __func__, slot);
    SQLite& store = SQLite::getInstance();
    OwnTransaction transaction(store, false);
    if (!transaction) {
        LOG_ERROR("AlternateStorage::%s: slot %d is not loaded, no transaction can begin", __func__, slot);
        return false;
    }
    const int moved = moveToLive(slot);
    const std::string why = moved == SQLITE_ABORT ? sqlite3_errstr(moved) : m_connection.message();
    m_connection.forgetSchema(); // what is decided by it here must not come from memory
    if (moved == SQLITE_ERROR && !tableExists()) {
        LOG_DEBUG("AlternateStorage::%s no alternate storage: [%s]", __func__, why.c_str());
        return true;
    }
    if (moved != SQLITE_OK) {
        LOG_ERROR("AlternateStorage::%s load error: %s", __func__, why.c_str());
        transaction.abandon();
        store.doIntegrityCheck();
        return false;
    }
    if (!emptySlot(slot)) {
        transaction.abandon();
        store.doIntegrityCheck();
        return false;
    }
    if (!dropWhenEmpty() || !transaction.finish())
        return false;
    LOG_DEBUG("AlternateStorage::%s: Slot %d loaded", __func__, slot);
    return true;
}

/// SQLITE_OK when all rows were moved, SQLITE_ABORT when one could not be, else what stopped SQLite.
int AlternateStorage::moveToLive(std::int32_t slot)
{
    Statement rows(&m_connection, "SELECT * from Attribute_AltStorage WHERE alt_storage=%d", slot);
    while (rows.next())
        if (moveRow(rows) != SQLITE_OK)
            return SQLITE_ABORT;
    return rows.done() ? SQLITE_OK : rows.result();
}

int AlternateStorage::moveRow(const Statement& row)
{
    const char* const operation = "loadAlternateStorageCB";
    const int columns = sqlite3_column_count(row.handle());
    if (columns < neededColumns) {
        LOG_ERROR("AlternateStorage::%s: Cannot load attributes, not enough columns [%d < 7]", operation, columns);
        return SQLITE_ABORT;
    }
    // Changes nothing, but is reported as a change of the object: the attribute row that follows is
    // told as one of that object.
    Statement touch(&m_connection, "UPDATE DBObject SET id=id WHERE id=%d", row.integer(belongsTo));
    touch.step();
    if (!touch.done()) {
        LOG_ERROR("AlternateStorage::%s: Cannot update DBObject id: %d [%s]", operation, row.integer(belongsTo),
                  m_connection.message());
        return SQLITE_ABORT;
    }
    const std::string attribute(row.text(name));
    Statement live(&m_connection,
                   "INSERT OR REPLACE INTO Attribute (belongsTo, name, value, value_type, hidden, persistent) VALUES "
                   "(%d,%Q,?1,%d,%d,%d)",
                   row.integer(belongsTo), attribute.c_str(), row.integer(valueType), row.integer(hidden),
                   row.integer(persistent));
    if (live.prepared())
        bindParked(m_connection, live, row);
    LOG_DEBUG("AlternateStorage::%s: Updating  Attribute: %s [%s]", operation, attribute.c_str(),
              std::string(row.text(value)).c_str());
    live.step();
    if (!live.done()) {
        LOG_ERROR("AlternateStorage::%s: Cannot update Attribute: %s [%s]", operation, attribute.c_str(),
                  m_connection.message());
        return SQLITE_ABORT;
    }
    return SQLITE_OK;
}

bool AlternateStorage::emptySlot(std::int32_t slot)
{
    Statement remove(&m_connection, "DELETE FROM Attribute_AltStorage WHERE alt_storage=%d", slot);
    remove.step();
    if (!remove.done())
        LOG_ERROR("AlternateStorage::%s delete error: %s", "loadAlternateStorage", m_connection.message());
    return remove.done();
}

bool AlternateStorage::dropWhenEmpty()
{
    const char* const operation = "loadAlternateStorage";
    if (!alternateStorageEmpty()) {
        LOG_DEBUG("AlternateStorage::%s: attributes still in other storages -> storage not removed", operation);
        return true;
    }
    if (!dropAlternateStorage()) {
        LOG_ERROR("AlternateStorage::%s: cannot delete alternate storage", operation);
        return false;
    }
    LOG_DEBUG("AlternateStorage::%s: alternate storages empty -> storage removed", operation);
    return true;
}
