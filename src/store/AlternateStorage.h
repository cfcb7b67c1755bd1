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
    virtual bool hasAlternateStorageAttributes(std::int32_t objectId);
    /// No parked row, or no table.
    virtual bool alternateStorageEmpty();
    virtual bool dropAlternateStorage();

    /// Whether the table is there; asked of SQLite once until something may have changed it.
    bool tableExists();

private:
    bool createTable();
    std::optional<bool> anyRow(class Statement& rows, const char* operation);

    Connection& m_connection;
};
