#pragma once

#include "tools/tamoctl/FileCopy.h"
#include "tools/tamoctl/SqliteFile.h"
#include "tools/tamoctl/TreeSource.h"

/// The tree of a database file, read in a copy. A place is a row id.
class DatabaseTree : public TreeSource {
public:
    /// Throws a Failure (usage) when the file is no database or has not the service's tables.
    explicit DatabaseTree(const std::string& path);

    /// Throws a Failure (usage) when the file turns out to be damaged.
    void visit(const std::vector<std::string>& roots, const std::function<void(const SourceObject&)>& visitor) override;
    std::unique_ptr<DBObject> again(const std::string& dn, std::int32_t instance, std::int64_t place) override;

private:
    std::unique_ptr<DBObject> read(std::int64_t id, const std::string& parentDn);
    void readAttributes(SqliteRows& rows, std::int64_t id, bool parked, DBObject& object);
    void requireDone(const SqliteRows& rows) const;

    std::string m_path;
    FileCopy m_copy;
    SqliteFile m_file;
    SqliteRows m_object;
    SqliteRows m_children;
    SqliteRows m_attributes;
    SqliteRows m_parked; ///< has none when there is no alternate storage
    bool m_hasParked;
};
