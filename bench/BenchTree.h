#pragma once

#include "store/SQLite.h"
#include "values/ValueType.h"

#include <cstdlib>
#include <string>

/// The tree that is measured: items of ten attributes, half of them persistent, 50 below each group.

inline constexpr int childrenEach = 50;
inline constexpr int attributesEach = 10;

inline std::string parentDn(int number) { return "ManagedElement=1,Group=" + std::to_string(number / childrenEach); }
inline std::string childPair(int number) { return "Item=" + std::to_string(number % childrenEach); }

inline DBObject item(int number)
{
    DBObject object(childPair(number), 1, true, false, 0, 1, parentDn(number), 1);
    for (int i = 0; i < attributesEach; ++i)
        object.addAttribute(Attribute(false, "attribute" + std::to_string(i),
                                      i % 2 ? Value(number + i) : Value("value " + std::to_string(number)), 0, i < 5,
                                      i % 2 ? IPCData::INT32 : IPCData::STRING, true, false));
    return object;
}

/// An update of one attribute to a value that it never had.
inline DBObject changeOf(int number)
{
    static std::int32_t value = 1000000;
    DBObject change(childPair(number), 1, true, false, 0, 1, parentDn(number), 1);
    change.addAttribute(Attribute(false, "attribute1", ++value, 0, true, IPCData::INT32, true, false));
    return change;
}

inline void mustSucceed(bool result)
{
    if (!result)
        std::abort();
}

/// A fresh store with this many items, which dumps nothing on a commit.
inline SQLite& storeOfItems(int size)
{
    SQLite& store = SQLite::getInstance();
    store.setDatabaseDumpEnabled(false);
    store.loadOrSaveDb(SQLite::Direction::load);
    DBObject root("ManagedElement=1", 1, true, false, 0, 1);
    store.sql_insert(&root, false, "bench");
    mustSucceed(store.sql_start_transaction());
    for (int i = 0; i < size; ++i) {
        if (i % childrenEach == 0) {
            DBObject group("Group=" + std::to_string(i / childrenEach), 1, true, false, 0, 1, "ManagedElement=1", 1);
            mustSucceed(store.sql_insert(&group, true, "bench"));
        }
        DBObject object = item(i);
        mustSucceed(store.sql_insert(&object, true, "bench"));
    }
    mustSucceed(store.sql_commit_transaction());
    return store;
}
