#pragma once

#include "platform/utility/DBObject.h"

#include <set>
#include <string>

class Database;

/// Makes sure that an object's parent is there before the object is inserted: the service stores an
/// object whose parent it does not find as a root.
class ParentCheck {
public:
    explicit ParentCheck(Database& database) : m_database(database) {}
    /// Throws a Failure (not found). A parent that was found, or added here, is not asked for again.
    void require(const DBObject& object);
    void addInserted(const std::string& wholeDn) { m_known.insert(wholeDn); }

private:
    Database& m_database;
    std::set<std::string> m_known;
};
