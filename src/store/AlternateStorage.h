#pragma once

#include "values/Attribute.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class Connection;

/// The table in which attribute values are parked under a slot number until the slot is loaded. It
/// exists only while something is parked, so that a missing table is the normal case: reads find
/// nothing, and no error is made of it. Made on the stack around each use, for a connection that it
/// does not own.
class AlternateStorage {
public:
    explicit AlternateStorage(Connection& connection) : m_connection(connection) {}
    virtual ~AlternateStorage() = default;
    AlternateStorage(const AlternateStorage&) = delete;
    AlternateStorage& operator=(const AlternateStorage&) = delete;

    /// Parks the attribute in its slot, in place of whatever was parked under its name.
    virtual bool saveAttributeToAlternateStorage(std::int32_t objectId, const Attribute& attribute,
                                                 const std::string& client);
    /// Appends all parked attributes of an object.
    virtual void getAlternateStorageAttributes(std::int32_t objectId, std::vector<Attribute>& attributes,
                                               const std::string& client);
    /// Copies a parked attribute into `attribute` when there is one. False on an SQLite error only.
    virtual bool getAlternateStorageAttribute(std::int32_t objectId, const std::string& name, Attribute& attribute);
    /// Makes the values parked in the slot the live ones, in a transaction of its own, all or none, and
    /// drops the table when nothing is left in it. Subscribers are told by the time it returns. True
    /// also when nothing was parked. For the connection that the store works on, and not inside a
    /// transaction (false). SharedLock must not be held: the table could not be dropped.
    virtual bool loadAlternateStorage(std::int32_t slot);
    virtual bool hasAlternateStorageAttributes(std::int32_t objectId);
    /// No parked row, or no table.
    virtual bool alternateStorageEmpty();
    virtual bool dropAlternateStorage();

    /// False when there is no table; asked of SQLite once until something may have changed it. True
    /// also when SQLite could not say: the statement that needs the table then meets the error.
    bool tableExists();

private:
    bool createTable();
    int moveToLive(std::int32_t slot);
    int moveRow(const class Statement& row);
    bool emptySlot(std::int32_t slot);
    bool dropWhenEmpty();
    std::optional<bool> anyRow(Statement& rows, const char* operation);

    Connection& m_connection;
};
