#pragma once

/// The schema of every database file: the service makes it, and who examines a file compares. SQLite keeps
/// the words as they stand here, less "IF NOT EXISTS ".
namespace Schema {

inline constexpr const char* objectTable =
    "CREATE TABLE DBObject(id INTEGER,parent INTEGER DEFAULT 0 REFERENCES DBObject(id) ON DELETE CASCADE,dn "
    "TEXT,MOInstance INTEGER DEFAULT 1,isMOMObject INTEGER DEFAULT 1,system INTEGER DEFAULT 0,PRIMARY KEY(id))";
inline constexpr const char* attributeTable =
    "CREATE TABLE Attribute(id INTEGER,belongsTo INTEGER NOT NULL,name TEXT DEFAULT 'Uninitialized name',value "
    "BLOB,value_type INTEGER,hidden INTEGER DEFAULT 0,persistent INTEGER DEFAULT 0,PRIMARY KEY(id),FOREIGN "
    "KEY(belongsTo)REFERENCES DBObject(id) ON DELETE CASCADE)";
inline constexpr const char* baseObject = "INSERT INTO DBObject VALUES(0,0,'baseobject',1,0,0)";
inline constexpr const char* objectIndex = "CREATE UNIQUE INDEX unique_object ON DBObject (parent,dn,MOInstance)";
inline constexpr const char* attributeIndex = "CREATE UNIQUE INDEX unique_attribute ON Attribute (belongsTo,name)";

/// Made when the first value is parked.
inline constexpr const char* alternateTable =
    "CREATE TABLE IF NOT EXISTS Attribute_AltStorage(id INTEGER,belongsTo INTEGER NOT NULL,name TEXT DEFAULT "
    "'Uninitialized name',value BLOB,value_type INTEGER,hidden INTEGER DEFAULT 0,persistent INTEGER DEFAULT "
    "0,alt_storage INTEGER DEFAULT -1,PRIMARY KEY(id),FOREIGN KEY(belongsTo)REFERENCES DBObject(id) ON DELETE "
    "CASCADE)";
inline constexpr const char* alternateIndex =
    "CREATE UNIQUE INDEX IF NOT EXISTS unique_attribute_altstorage ON Attribute_AltStorage (belongsTo,name)";

} // namespace Schema
