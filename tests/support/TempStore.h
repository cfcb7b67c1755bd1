#pragma once

#include "tests/support/Platform.h"
#include "tests/support/ScopedVariable.h"

#include "platform/utility/DBObject.h"
#include "store/SQLite.h"
#include "values/Attribute.h"
#include "values/ValueType.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Directories of the test's own for every database file, gone afterwards, with the environment that
/// leads to them; the log and the middleware.
class TempDirectories : public testing::Test {
protected:
    TempDirectories();
    ~TempDirectories() override;

    std::string path(const std::string& name) const { return m_root + "/" + name; }

private:
    std::string m_root;
    std::vector<std::unique_ptr<ScopedVariable>> m_environment;

protected:
    LogLines log;
    Middleware middleware;
};

/// A fresh store with the empty schema, as start-up leaves one.
class TempStore : public TempDirectories {
protected:
    TempStore();
    ~TempStore() override;

    static SQLite& store() { return SQLite::getInstance(); }
    static sqlite3* handle() { return store().runtime()->handle(); }

    /// Inserts an object by its whole DN, with the attributes; of the model unless `isMOMObject`.
    static bool insert(const std::string& wholeDn, std::vector<Attribute> attributes = {}, bool isMOMObject = true,
                       std::int32_t MOInstance = 1);
    /// Updates a stored object with the attributes.
    static bool update(const std::string& wholeDn, std::vector<Attribute> attributes);
    static std::unique_ptr<DBObject> object(const std::string& wholeDn, std::int32_t MOInstance = 1);
    static std::int32_t idOf(const std::string& wholeDn) { return store().get_object_id(wholeDn, 1); }
    /// The attribute's value as text; "(none)" when it is not stored.
    static std::string value(const std::string& wholeDn, const std::string& name);

    /// What another connection reads from the runtime file: the first columns, joined by commas.
    std::string committed(const std::string& sql) const;
    bool anotherConnectionCanWrite() const;
    /// All rows of both tables as another connection reads them.
    std::string everything() const;
};

/// An object's own container from a whole DN.
DBObject container(const std::string& wholeDn, std::vector<Attribute> attributes = {}, bool isMOMObject = true,
                   std::int32_t MOInstance = 1);

/// A changed attribute; without a type the one of the value's kind.
Attribute attribute(const std::string& name, Value value, std::int32_t type = IPCData::INVALID);
Attribute text(const std::string& name, const std::string& value);
Attribute reference(const std::string& name, const std::string& dns);

/// What a query gives in a database file: the first columns, joined by commas.
std::string queryFile(const std::string& path, const std::string& sql);
