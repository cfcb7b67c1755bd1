#pragma once

#include "tests/support/TempStore.h"

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

/// The files that a start finds, made as the service makes them, and a store to start.
class StartFiles : public TempDirectories {
protected:
    StartFiles() { SQLite::destroyInstance(false); }
    ~StartFiles() override { SQLite::destroyInstance(false); }

    static SQLite& store() { return SQLite::getInstance(); }

    /// A database file that holds these objects.
    void makeDatabase(const std::string& file, std::vector<DBObject> objects)
    {
        store().setDatabaseFile(file);
        ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
        for (auto& object : objects)
            ASSERT_TRUE(store().sql_insert(&object, false, "test"));
        ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::save), SQLITE_OK);
        SQLite::destroyInstance(false);
    }
    void makeCommon(std::optional<Value> reason, std::optional<Value> ongoing)
    {
        DBObject common("Common", 1, false, false, 0, 1);
        if (reason)
            common.addAttribute(attribute("resetReason", *reason));
        if (ongoing)
            common.addAttribute(attribute("brmOngoing", *ongoing));
        makeDatabase(commonFile(), {common});
    }

    std::string permanent() const { return path("flash/pRBSdb"); }
    std::string backup() const { return path("backup/database/pRBSdb"); }
    std::string commonFile() const { return path("common/commondb"); }
    /// The pairs of the loaded tree, by name.
    std::string tree() const
    {
        return queryFile(path("runtime/pRBSdb"), "select dn from DBObject where id != 0 order by dn");
    }
    std::string commonFact(const std::string& name) const
    {
        return queryFile(commonFile(), "select value from Attribute where name = '" + name + "'");
    }
};
