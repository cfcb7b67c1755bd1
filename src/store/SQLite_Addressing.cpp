// From distinguished names to object ids and back. A path is followed pair by pair: one nested
// statement for all of them overflows SQLite's parser stack at eleven pairs.

#include "store/SQLite.h"

#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "values/DistinguishedName.h"

#include <sqlite3.h>

#include <algorithm>
#include <ctime>

namespace {

constexpr const char* noName = "unInitialised";

bool isError(int result) { return result != SQLITE_OK && result != SQLITE_ROW && result != SQLITE_DONE; }

/// `pair` for use inside a text in quotes: quotes doubled, and for a pattern everything but % plain.
std::string escaped(const std::string& pair, bool pattern)
{
    std::string out;
    for (const char c : pair) {
        if (c == '\'')
            out += '\'';
        if (pattern && (c == '_' || c == '\\'))
            out += '\\';
        out += c;
    }
    return out;
}

std::string condition(const std::string& pair)
{
    if (pair.find('%') == std::string::npos)
        return "dn = '" + escaped(pair, false) + "'";
    return "dn like '" + escaped(pair, true) + "%' escape '\\' and dn not like '%:%'";
}

} // namespace

std::vector<std::string> SQLite::tokenize_dn(const std::string& dn) const
{
    std::vector<std::string> tokens;
    const auto inside = [&](char separator) {
        const std::size_t at = dn.find(separator);
        return at != std::string::npos && at != 0;
    };
    if (!inside(',') && !inside('='))
        return tokens;
    for (std::size_t begin = 0; begin <= dn.size();) {
        const std::size_t end = std::min(dn.find_first_of(",=", begin), dn.size());
        if (end > begin)
            tokens.push_back(dn.substr(begin, end - begin));
        begin = end + 1;
    }
    if (!tokens.empty())
        LOG_DEBUG("SQLite::%s, dn: '%s' tokenized successfully", __func__, dn.c_str());
    return tokens;
}

std::string SQLite::get_object_name(const std::string& dn, bool wantClass) const
{
    std::vector<std::string> tokens = tokenize_dn(dn);
    if (shutDownOngoing(__func__))
        return {};
    if (tokens.empty()) {
        LOG_ERROR("SQLite::%s, Error fetching object name!", __func__);
        return noName;
    }
    if (wantClass) {
        tokens.pop_back();
        if (tokens.empty()) {
            LOG_ERROR("SQLite::%s, Error fetching object name, dn: '%s' not valid!", __func__, dn.c_str());
            return noName;
        }
    }
    LOG_DEBUG("SQLite::%s, Object name found: '%s'", __func__, tokens.back().c_str());
    return tokens.back();
}

bool SQLite::splitDnPath(const std::string& dn, std::vector<std::string>& pairs) const
{
    pairs = splitPairs(dn);
    return pairs.size() >= 2;
}

std::string SQLite::createSelectIdSql(const std::vector<std::string>& pairs) const
{
    if (pairs.empty()) {
        LOG_DEBUG("SQLite::%s() dn_path was empty, returning empty string.", __func__);
        return {};
    }
    std::string sql = "select id from DBObject where " + condition(pairs.back());
    for (auto pair = pairs.rbegin() + 1; pair != pairs.rend(); ++pair)
        sql += " and parent = (select id from DBObject where " + condition(*pair);
    sql.append(pairs.size() - 1, ')');
    LOG_DEBUG("SQLite::%s() returning %s", __func__, sql.c_str());
    return sql;
}

void SQLite::forgetLookups()
{
    m_lastDn.clear();
    m_lastId = 0;
    m_oamIds.reset();
    m_innerStarts.clear();
    m_holdsPairWithComma.reset();
    forgetWholeDn();
}

/// What a new object makes untrue of what is remembered. Its row id may have belonged to another.
void SQLite::forgetFor(const std::string& newPair)
{
    forgetWholeDn();
    m_innerStarts.forget(newPair);
    if (newPair.find(',') != std::string::npos)
        m_holdsPairWithComma.reset();
    if (newPair == oamPair)
        m_oamIds.reset();
}

void SQLite::forgetWholeDn()
{
    m_lastWholeDnId = 0;
    m_lastWholeDn.clear();
    m_parents.clear();
}

std::optional<SQLite::ObjectRow> SQLite::objectRow(std::int32_t objectId, int& result)
{
    Statement row(m_runtime, "select * from DBObject where id = %d", objectId);
    result = row.step();
    if (result != SQLITE_ROW)
        return std::nullopt;
    return ObjectRow{row.integer(0), row.integer(1),      std::string(row.text(2)),
                     row.integer(3), row.integer(4) != 0, row.integer(5) != 0};
}

std::optional<SQLite::ObjectRow> SQLite::objectRow(std::int32_t objectId)
{
    int result = SQLITE_OK;
    return objectRow(objectId, result);
}

/// Row ids are used again after a delete, and the DN alone does not tell instances or parents apart.
bool SQLite::cachedIdStands(const std::vector<std::string>& pairs, const std::string& dn, std::int32_t MOInstance,
                            std::int32_t parentId)
{
    const auto row = objectRow(m_lastId);
    if (!row || pairs.empty())
        return false;
    if (pairs.size() > 1 && row->dn == pairs.back())
        return true;
    return row->dn == (pairs.size() > 1 ? dn : pairs.back()) && row->MOInstance == MOInstance &&
           (parentId == 0 || row->parent == parentId);
}

std::int32_t SQLite::findSinglePair(const std::string& pair, std::int32_t MOInstance, std::int32_t parentId,
                                    int& result)
{
    // Below the root first: that look-up has an index, and it is what a single pair nearly always means.
    Statement child(m_runtime, "select id from DBObject where parent = %d and dn = %Q and MOInstance = %d", parentId,
                    pair.c_str(), MOInstance);
    result = child.step();
    if (result == SQLITE_ROW && child.integer(0) != 0)
        return child.integer(0);
    if (parentId != 0 || isError(result))
        return 0;
    Statement anywhere(m_runtime, "select id from DBObject where dn = %Q and MOInstance = %d", pair.c_str(),
                       MOInstance);
    result = anywhere.step();
    return result == SQLITE_ROW ? anywhere.integer(0) : 0;
}

/// Walks down from an object along the pairs; 0 where the path ends.
std::int32_t SQLite::followPairs(std::int32_t fromId, std::span<const std::string> pairs, int& result)
{
    std::int32_t id = fromId;
    for (const std::string& pair : pairs) {
        Statement child(m_runtime, "select id from DBObject where parent=%d and dn=%Q", id, pair.c_str());
        result = child.step();
        id = result == SQLITE_ROW ? child.integer(0) : 0;
        if (id == 0)
            return 0;
    }
    return id;
}

/// Walks down a path of several pairs, the last step from its parent when that is known.
std::int32_t SQLite::followFromRoot(const std::string& dn, std::span<const std::string> pairs, int& result)
{
    const auto last = pairs.last(1);
    std::string parentDn = splitOwnPair(dn).parent;
    if (const std::int32_t parent = m_parents.id(parentDn))
        return followPairs(parent, last, result);
    const std::int32_t parent = followPairs(0, pairs.first(pairs.size() - 1), result);
    if (parent == 0)
        return 0;
    if (pairs.size() > 2) // a single pair is looked up by its MOInstance, too
        m_parents.rememberId(std::move(parentDn), parent);
    return followPairs(parent, last, result);
}

/// The object at the end of a path: from the root, else from wherever its first pair stands, else
/// the one whose own pair is the whole text, commas and all.
std::int32_t SQLite::findPath(const std::string& dn, const std::vector<std::string>& pairs, std::int32_t MOInstance,
                              int& result)
{
    if (const std::int32_t id = followFromRoot(dn, pairs, result); id != 0 || isError(result))
        return id;
    if (const std::int32_t id = followFromInside(pairs, result); id != 0 || isError(result))
        return id;
    return holdsPairWithComma(result) ? findWholeText(dn, MOInstance, result) : 0;
}

/// Walks down from wherever the first pair stands below another object.
std::int32_t SQLite::followFromInside(std::span<const std::string> pairs, int& result)
{
    const std::vector<std::int32_t>* starts = m_innerStarts.of(pairs.front());
    if (!starts) {
        // Nothing but the root has an index for this, so one look at every row must do.
        Statement rows(m_runtime, "select id from DBObject where dn = %Q and parent != 0", pairs.front().c_str());
        std::vector<std::int32_t> ids;
        while (rows.next())
            ids.push_back(rows.integer(0));
        result = rows.result();
        if (isError(result))
            return 0;
        starts = &m_innerStarts.remember(pairs.front(), std::move(ids));
    }
    for (const std::int32_t start : *starts)
        if (const std::int32_t id = followPairs(start, pairs.subspan(1), result); id != 0 || isError(result))
            return id;
    return 0;
}

bool SQLite::holdsPairWithComma(int& result)
{
    if (!m_holdsPairWithComma) {
        Statement row(m_runtime, "select id from DBObject where instr(dn, ',') > 0 limit 1");
        const bool holds = row.next();
        result = row.result();
        if (isError(result))
            return false;
        m_holdsPairWithComma = holds;
    }
    return *m_holdsPairWithComma;
}

/// The object whose own pair is the whole text; one at the top before others.
std::int32_t SQLite::findWholeText(const std::string& dn, std::int32_t MOInstance, int& result)
{
    std::int32_t id = 0;
    Statement rows(m_runtime, "select id,parent from DBObject where dn = %Q and MOInstance = %d", dn.c_str(),
                   MOInstance);
    while (rows.next())
        if (id == 0 || rows.integer(1) == 0)
            id = rows.integer(0);
    result = rows.result();
    return id;
}

std::int32_t SQLite::get_object_id(const std::string& dn, std::int32_t MOInstance, std::int32_t parentId)
{
    if (unavailable(__func__))
        return 0;
    std::vector<std::string> pairs;
    const bool severalPairs = splitDnPath(dn, pairs);
    if (m_lastId != 0 && dn == m_lastDn) {
        if (cachedIdStands(pairs, dn, MOInstance, parentId)) {
            LOG_DEBUG("SQLite::%s() Dn was same as previous(%s), returning object id %d", __func__, dn.c_str(),
                      m_lastId);
            return m_lastId;
        }
        LOG_DEBUG("SQLite::%s() Dn was same as previous(%s), but object id has changed (was %d). Fetching new id.",
                  __func__, dn.c_str(), m_lastId);
    }
    if (pairs.empty())
        pairs.push_back(dn);
    int result = SQLITE_OK;
    std::int32_t id = 0;
    if (severalPairs) {
        LOG_DEBUG("SQLite:1 dnpath size: %d", static_cast<int>(pairs.size()));
        id = findPath(dn, pairs, MOInstance, result);
    } else {
        id = findSinglePair(pairs.front(), MOInstance, parentId, result);
    }
    if (isError(result)) {
        LOG_ERROR("SQLite::%s, Failed to fetch object id from database, sql error %d", __func__, result);
        doIntegrityCheck();
        return 0;
    }
    if (id == 0) {
        LOG_DEBUG("SQLite::%s, Object id not found from database", __func__);
        return 0;
    }
    LOG_DEBUG("SQLite::%s, Object id found from database: %d (dn:%s)", __func__, id, dn.c_str());
    m_lastDn = dn;
    m_lastId = id;
    return id;
}

std::int32_t SQLite::get_object_id_with_parent(const std::string& pair, std::int32_t parentId)
{
    if (!m_runtime)
        return 0;
    Statement child(m_runtime, "select id from DBObject where parent=%d and dn=%Q", parentId, pair.c_str());
    const int result = child.step();
    if (result == SQLITE_ROW) {
        const std::int32_t id = child.integer(0);
        LOG_DEBUG("SQLite::%s, Object id found from database: %d (dn:%s)", __func__, id, pair.c_str());
        return id;
    }
    if (isError(result)) {
        LOG_ERROR("SQLite::%s, Failed to fetch object id from database, sql error %d", __func__, result);
        doIntegrityCheck();
    } else {
        LOG_DEBUG("SQLite::%s, Object id not found from database", __func__);
    }
    return 0;
}

/// The pairs from the root to an object; those above it come from memory when its parent is known.
std::string SQLite::walkUp(std::int32_t objectId, int& result)
{
    std::vector<std::string> pairs; // from the object up
    std::string wholeDn;
    std::int32_t current = objectId;
    std::int32_t parent = 0; // of the object
    for (int level = 0; level < maxLevels; ++level) {
        if (const std::string* const known = level == 0 ? nullptr : m_parents.wholeDn(current)) {
            wholeDn = *known;
            break;
        }
        Statement row(m_runtime, "select parent,dn from DBObject where id=%d", current);
        result = row.step();
        if (result != SQLITE_ROW)
            break;
        pairs.emplace_back(row.text(1));
        current = row.integer(0);
        if (level == 0)
            parent = current;
        if (current == 0)
            break;
    }
    const bool whole = result == SQLITE_ROW; // every row on the way up was there
    for (auto pair = pairs.rbegin(); pair != pairs.rend(); ++pair) {
        if (whole && parent != 0 && std::next(pair) == pairs.rend())
            m_parents.rememberWholeDn(parent, wholeDn);
        wholeDn.append(wholeDn.empty() ? "" : ",").append(*pair);
    }
    return wholeDn;
}

std::string SQLite::get_whole_dn(std::int32_t objectId)
{
    if (unavailable(__func__))
        return " ";
    if (objectId == m_lastWholeDnId && objectId != 0) {
        LOG_DEBUG("SQLite::%s: Object id same as previous %d, returning %s", __func__, objectId, m_lastWholeDn.c_str());
        return m_lastWholeDn;
    }
    LOG_DEBUG("SQLite::%s: Fetching whole dn for object id %d.", __func__, objectId);
    int result = SQLITE_OK;
    std::string wholeDn = walkUp(objectId, result);
    if (isError(result)) {
        LOG_ERROR("SQLite::%s: Error while fetching whole dn. Sqlite error: %d", __func__, result);
        doIntegrityCheck();
    }
    m_lastWholeDnId = objectId;
    m_lastWholeDn = wholeDn;
    LOG_DEBUG("SQLite::%s: Returning %s", __func__, wholeDn.c_str());
    return wholeDn;
}

std::string SQLite::get_whole_dn(const std::string& dn, const std::string& parentDn)
{
    if (unavailable(__func__))
        return " ";
    LOG_DEBUG("SQLite::%s: Fetching whole dn for %s object.", __func__, dn.c_str());
    const std::int32_t id = get_object_id(joinDn(parentDn, dn), 1);
    if (id != 0)
        return get_whole_dn(id);
    LOG_DEBUG("SQLite::%s: Object %s or parent %s not found from database. Returning empty string.", __func__,
              dn.c_str(), parentDn.c_str());
    return {};
}

bool SQLite::checkIdPresence(std::int32_t objectId)
{
    if (objectRow(objectId)) {
        LOG_DEBUG("SQLite::%s() Object id %d found from db", __func__, objectId);
        return true;
    }
    LOG_DEBUG("SQLite::%s() Object id %d NOT found from db", __func__, objectId);
    return false;
}

bool SQLite::idExists(std::int32_t objectId)
{
    if (unavailable(__func__))
        return false;
    int result = SQLITE_OK;
    objectRow(objectId, result);
    if (isError(result)) {
        LOG_ERROR("SQLite::%s, Error while checking object id from db. Sqlite error: %d", __func__, result);
        doIntegrityCheck();
        return true;
    }
    return result != SQLITE_DONE;
}

bool SQLite::updateDn(const std::string& oldDn, const std::string& newDn)
{
    LOG_DEBUG("SQLite::%s Updating '%s' to '%s' into database", __func__, oldDn.c_str(), newDn.c_str());
    if (get_object_id(newDn, 1) != 0) {
        LOG_DEBUG("SQLite::%s %s already exists in database", __func__, newDn.c_str());
        return false;
    }
    const std::int32_t id = get_object_id(oldDn, 1);
    if (id == 0) {
        LOG_DEBUG("SQLite::%s %s not found from database", __func__, oldDn.c_str());
        return false;
    }
    Statement rename(m_runtime, "update DBObject set dn=%Q where id=%d", newDn.c_str(), id);
    rename.step();
    forgetLookups();
    if (!rename.done()) {
        LOG_ERROR("SQLite:: %s DBObject table update failed! SQLite error %d", __func__, rename.result());
        doIntegrityCheck();
        return false;
    }
    return true;
}

std::string SQLite::FormatCurrentUtcTime() const
{
    constexpr std::size_t expectedLength = 19;
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%F %T", &utc);
    if (length != expectedLength)
        LOG_ERROR("SQLite::%s() string length not 19", __func__);
    return {text, length};
}
