#pragma once

#include <cstdint>
#include <span>
#include <string>

class Connection;

/// Makes the pruned copy of a database that outlives the process: the objects with a persistent
/// attribute or a parked value, and everything above them. It holds nothing and owns no connection
/// that it is given; a fresh one is made on the stack for each store.
class PersistentStorage {
public:
    PersistentStorage() = default;
    virtual ~PersistentStorage() = default;
    PersistentStorage(const PersistentStorage&) = delete;
    PersistentStorage& operator=(const PersistentStorage&) = delete;

    /// True when the whole content of `source` now stands in `destination`. A source inside a write
    /// transaction of its own cannot be copied.
    bool copyDatabase(Connection& source, Connection& destination);
    /// True when there is a persistent attribute or a parked value, and when that cannot be told.
    bool hasPersistentData(Connection& connection);
    /// Removes the objects with everything below them; ids that are not stored do no harm.
    bool removeExcludedObjects(Connection& connection, std::span<const std::int32_t> objectIds);
    bool removeNonPersistentData(Connection& connection);
    /// Writes the pruned copy of `connection`, which is only read, to `file`. The file may be there
    /// already, but neither it nor, once the directory is resolved, anything on its path may be a
    /// link. What is left there after a failure is no database.
    bool storePersistentData(Connection& connection, const std::string& file,
                             std::span<const std::int32_t> excludedObjectIds, bool keepAlternateStorage);
};
