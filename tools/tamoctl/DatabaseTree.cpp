// Objects out of a database file's rows, walked from the base object down. Rows that hang on nothing
// are not part of the tree.

#include "tools/tamoctl/DatabaseTree.h"

#include "tools/tamoctl/Failure.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <sqlite3.h>
#include <unordered_set>
#include <utility>

namespace {

constexpr std::int64_t baseObject = 0;

constexpr const char* objectQuery = "SELECT dn, MOInstance, isMOMObject, system FROM DBObject WHERE id = ?1";
constexpr const char* childQuery = "SELECT id FROM DBObject WHERE parent = ?1 AND id <> 0 ORDER BY dn, MOInstance";
constexpr const char* attributeQuery =
    "SELECT name, value, value_type, hidden, persistent FROM Attribute WHERE belongsTo = ?1";
constexpr const char* parkedQuery = "SELECT name, value, value_type, hidden, persistent, alt_storage FROM "
                                    "Attribute_AltStorage WHERE belongsTo = ?1";
constexpr const char* parkedTable =
    "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'Attribute_AltStorage'";

bool anyRow(SqliteFile& file, const char* query)
{
    SqliteRows rows(file, query);
    return rows.next();
}

/// By the stored type, as the service reads it. A type that is none keeps the text.
Value valueOf(const SqliteRows& row, int column, std::int32_t type)
{
    const auto whole = [&]<class Number>(Number) { return Value(static_cast<Number>(row.integer(column))); };
    switch (alternativeOf(type).value_or(std::variant_npos)) {
    case 0:
        return whole(std::int8_t{});
    case 1:
        return whole(std::int16_t{});
    case 2:
        return whole(std::int32_t{});
    case 3:
        return whole(std::int64_t{});
    case 4:
        return static_cast<float>(row.real(column));
    case 5:
        return row.real(column);
    case 7:
        return whole(std::uint8_t{});
    case 8:
        return whole(std::uint16_t{});
    case 9:
        return whole(std::uint32_t{});
    case 10:
        return whole(std::uint64_t{});
    case 11:
        return row.integer(column) != 0;
    default:
        return row.text(column);
    }
}

} // namespace

DatabaseTree::DatabaseTree(const std::string& path)
    : m_path(path),
      m_copy(path),
      m_file(m_copy.path()),
      m_object(m_file, objectQuery),
      m_children(m_file, childQuery),
      m_attributes(m_file, attributeQuery),
      m_parked(m_file, parkedQuery),
      m_hasParked(anyRow(m_file, parkedTable))
{
    for (const SqliteRows* rows : {&m_object, &m_children, &m_attributes})
        if (rows->result() != SQLITE_OK)
            throw Failure(ExitCode::usage, path + " cannot be read: " + sqlite3_errstr(rows->result()) +
                                               " (\"tamoctl check\" says more)");
}

void DatabaseTree::visit(const std::vector<std::string>&, const std::function<void(const SourceObject&)>& visitor)
{
    // A stack of our own: a tree may be deep, and in a damaged file without end.
    struct Pending {
        std::int64_t id;
        std::string parentDn;
    };
    std::vector<Pending> pending{{baseObject, ""}};
    std::unordered_set<std::int64_t> seen;
    while (!pending.empty()) {
        const Pending next = std::move(pending.back());
        pending.pop_back();
        if (!seen.insert(next.id).second)
            throw Failure(ExitCode::usage, m_path + ": object " + std::to_string(next.id) + " is below itself");
        std::string dn;
        if (next.id != baseObject) {
            const auto object = read(next.id, next.parentDn);
            dn = joinDn(next.parentDn, quotedPair(object->dn));
            visitor({*object, dn, next.id});
        }
        m_children.restart(next.id);
        while (m_children.next())
            pending.push_back({m_children.integer(0), dn});
        requireDone(m_children);
    }
}

std::unique_ptr<DBObject> DatabaseTree::again(const std::string& dn, std::int32_t, std::int64_t place)
{
    return read(place, splitOwnPair(dn).parent);
}

std::unique_ptr<DBObject> DatabaseTree::read(std::int64_t id, const std::string& parentDn)
{
    m_object.restart(id);
    if (!m_object.next())
        throw Failure(ExitCode::usage,
                      m_path + ": object " + std::to_string(id) + " cannot be read: " + m_file.message());
    auto object = std::make_unique<DBObject>(
        m_object.text(0), static_cast<std::int32_t>(m_object.integer(1)), m_object.integer(2) != 0,
        m_object.integer(3) != 0, IPCData::operationalState0, IPCData::adminState1, parentDn, parentDn.empty() ? 0 : 1);
    readAttributes(m_attributes, id, false, *object);
    if (m_hasParked)
        readAttributes(m_parked, id, true, *object);
    return object;
}

void DatabaseTree::readAttributes(SqliteRows& rows, std::int64_t id, bool parked, DBObject& object)
{
    rows.restart(id);
    while (rows.next()) {
        const auto type = static_cast<std::int32_t>(rows.integer(2));
        Attribute attribute(rows.integer(3) != 0, rows.text(0), valueOf(rows, 1, type), 0, rows.integer(4) != 0, type,
                            false, false);
        if (parked)
            attribute.slot = static_cast<std::int32_t>(rows.integer(5));
        parked ? object.addAlternateAttribute(std::move(attribute)) : object.addAttribute(std::move(attribute));
    }
    requireDone(rows);
}

void DatabaseTree::requireDone(const SqliteRows& rows) const
{
    if (!rows.done())
        throw Failure(ExitCode::usage, m_path + " cannot be read: " + m_file.message());
}
