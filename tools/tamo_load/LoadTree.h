#pragma once

#include "platform/utility/DBObject.h"

#include <atomic>
#include <chrono>
#include <string>

class Database;

/// Objects below one parent, and objects of the class that is listed.
inline constexpr int groupSize = 50;
inline constexpr int attributesPerObject = 10;

using Clock = std::chrono::steady_clock;

/// Throws a ClientError when `success` is false.
void require(bool success, const std::string& what);

/// The objects of a run. Every run has a name of its own, so that runs may overlap.
class LoadTree {
public:
    explicit LoadTree(int objects);

    int objects() const { return m_objects; }
    std::string root() const { return "ManagedElement=1,TamoLoad=" + m_name; }
    std::string group(int number) const { return root() + ",LoadGroup=" + std::to_string(number); }
    std::string dn(int number) const { return group(number / groupSize) + ",LoadObject=" + std::to_string(number); }
    /// A class with groupSize objects, whatever else is in the database.
    std::string probeClass() const { return "LoadProbe" + m_name; }

    /// Everything but the objects themselves.
    void prepare(Database& database) const;
    DBObject object(int number) const;
    /// An update of one attribute of some object to a value that it never had; the objects come
    /// scattered, so that neither cache nor order helps.
    DBObject nextChange();
    int someObject(int number) const { return scattered(number, m_objects); }
    int someGroup(int number) const;

private:
    static int scattered(int number, int size);

    std::string m_name;
    int m_objects;
    std::atomic<int> m_changes = 0;
};
